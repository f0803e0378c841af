// Boost.JSON, compiled in here as its package's headers offer it.

#include <boost/json/src.hpp>
