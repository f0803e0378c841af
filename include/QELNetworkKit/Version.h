#ifndef QELNETWORKKIT_VERSION_H
#define QELNETWORKKIT_VERSION_H

#include <QELNetworkKit/Export.h>

QELNK_EXTERN_C_BEGIN

/** The library's version as a number: major + minor / 100, for example 1.04. Constant, any thread. */
extern QELNK_EXPORT const double QELNetworkKitVersionNumber;

/** The library's version as text, for example "QELNetworkKit 1.4.0". Constant, zero-terminated, any thread. */
extern QELNK_EXPORT const char QELNetworkKitVersionString[];

QELNK_EXTERN_C_END

#endif
