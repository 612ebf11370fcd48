// Qel::Util: text and number helpers shared by every part of the system.
#pragma once

#include <cstdint>
#include <typeinfo>
#include <vector>

#include "Qel/YString.h"

namespace Qel::Util {

// Reads a number from `text` as the command line does: a leading "0x"
// (lower-case x only) selects hexadecimal, anything else is decimal. Leading
// white space is skipped and characters after the number are ignored ("12abc"
// is 12). Raises code 118 (log type 15, "StringToNumber") with the text as
// info when no number can be read. Instantiated for 32- and 64-bit integers.
template <class T>
T StringToNumber(const YString& text);

// Reads a number as JSON fields do: "0x" or "0X" selects hexadecimal, else
// `hexDefault` decides between hexadecimal and decimal. Same failure as above.
template <class T>
T StringToNumber(const YString& text, bool hexDefault);

// Booleans: a text that begins with "true" or "false" (any letter case) gives
// that value; otherwise "1" or "0" is read as a number. Raises code 118 (log
// type 15, "StringToNumber<bool>") otherwise.
template <>
bool StringToNumber<bool>(const YString& text);

// Decimal text of a number.
template <class T>
YString NumberToString(T number);

// `quote` + text + `quote`.
YString QuotifyEx(const YString& text, const YString& quote);

// Splits at every occurrence of `separator`; an empty text gives no items.
std::vector<YString> SplitString(const YString& text, char separator);

// Trims blanks, tabs and line ends at both ends.
YString Trim(const YString& text);

// Readable type name of a type: "int" for int, "YString" for Qel::YString,
// else the demangled name.
YString ParseTypeName(const std::type_info& type);

}  // namespace Qel::Util
