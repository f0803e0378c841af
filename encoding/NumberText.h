#pragma once

namespace qelnk::detail {

/// Room that the functions below may write to, beyond the text's end too.
constexpr unsigned long longestNumber = 48;

/// Write a number as text and return the end of it. Floats come in the shortest form that reads back as the same
/// number, with a fraction or an exponent always; those that are none as "nan", "inf" and "-inf".
char *writeInteger(char *to, unsigned long number);
char *writeDouble(char *to, double number);
char *writeDouble(char *to, float number);

}  // namespace qelnk::detail
