// Qel::Match: regular-expression matching of names.
#pragma once

#include "Qel/YString.h"

namespace Qel::Match {

// True when `pattern` (ECMAScript syntax) matches the whole of `text`.
// With `caseSensitive` false, letters match regardless of case. A pattern
// that is not a valid expression raises code 55 (log type 15, function
// "RegExp") naming the pattern and the reason. Compiled patterns are cached,
// so repeated calls with one pattern are cheap. Thread-safe.
bool RegExp(const YString& text, const YString& pattern, bool caseSensitive);

}  // namespace Qel::Match
