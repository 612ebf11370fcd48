#include "Qel/Match/RegExp.h"

#include <boost/regex.hpp>
#include <map>
#include <mutex>

#include "Qel/Exception/YError.h"

namespace Qel::Match {

namespace {

constexpr unsigned int kLogShell = 15;
constexpr unsigned int kBadValue = 55;
// Compiled patterns kept; the cache is dropped whole when it grows past this.
constexpr size_t kMaxCachedPatterns = 256;

std::mutex gMutex;
std::map<std::pair<YString, bool>, std::shared_ptr<const boost::regex>> gCache;

std::shared_ptr<const boost::regex> Compile(const YString& pattern, bool caseSensitive) {
  std::lock_guard<std::mutex> lock(gMutex);
  auto key = std::make_pair(pattern, caseSensitive);
  auto it = gCache.find(key);
  if (it != gCache.end()) return it->second;
  boost::regex::flag_type flags = boost::regex::ECMAScript;
  if (!caseSensitive) flags |= boost::regex::icase;
  std::shared_ptr<const boost::regex> compiled;
  try {
    compiled = std::make_shared<const boost::regex>(pattern, flags);
  } catch (const boost::regex_error& e) {
    QEL_RAISE(kLogShell, kBadValue, "Invalid regular expression " + pattern + ": " + e.what(),
              "libqel/Qel/Match/RegExp", "RegExp");
  }
  if (gCache.size() >= kMaxCachedPatterns) gCache.clear();
  gCache.emplace(std::move(key), compiled);
  return compiled;
}

}  // namespace

bool RegExp(const YString& text, const YString& pattern, bool caseSensitive) {
  return boost::regex_match(text, *Compile(pattern, caseSensitive));
}

}  // namespace Qel::Match
