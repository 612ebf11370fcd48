#include "Lister.h"

#include "ApiError.h"
#include "CloudPath.h"
#include "Wildcard.h"

#include <boost/regex.hpp>

#include <optional>

namespace zarnu::cloud {

namespace {

constexpr std::size_t kScanBatch = 1000;
constexpr std::size_t kNoLimit = 100'000'000;

bool visible(const Entry& e, bool includeDeleted) { return includeDeleted || e.deleted == 0; }

// Expands a path with wild cards, component by component, into the matching entries in
// key order.
std::vector<Entry> expand(MetadataStore& store, AccountId account, const std::vector<std::string>& components,
                          bool includeDeleted) {
    std::vector<Entry> current;
    if (auto root = store.entryByKey(account, "")) current.push_back(*root);
    for (std::size_t level = 0; level < components.size(); ++level) {
        const std::string& comp = components[level];
        const bool last = level + 1 == components.size();
        std::vector<Entry> next;
        for (const Entry& folder : current) {
            if (!folder.folder) continue;
            if (CloudPath::hasWildcard(comp)) {
                for (Entry& child : store.children(account, folder.key, "", includeDeleted, kNoLimit))
                    if (wildcardMatch(comp, child.name) && (last || child.folder)) next.push_back(std::move(child));
            } else {
                std::string key = folder.key + CloudPath::kSeparator + comp;
                auto e = store.entryByKey(account, key);
                if (e && visible(*e, includeDeleted) && (last || e->folder)) next.push_back(std::move(*e));
            }
        }
        current = std::move(next);
    }
    return current;
}

}  // namespace

std::string Lister::encodeCursor(std::string_view key) {
    static const char* digits = "0123456789abcdef";
    std::string out = "k";
    for (unsigned char c : key) {
        out += digits[c >> 4];
        out += digits[c & 0x0F];
    }
    return out;
}

std::string Lister::decodeCursor(std::string_view cursor) {
    auto bad = [] { return ApiError(ErrorCode::BadInput, "Invalid cursor"); };
    if (cursor.empty() || cursor[0] != 'k' || cursor.size() % 2 != 1) throw bad();
    auto val = [&](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        throw bad();
    };
    std::string key;
    for (std::size_t i = 1; i < cursor.size(); i += 2)
        key += static_cast<char>(val(cursor[i]) * 16 + val(cursor[i + 1]));
    return key;
}

ListPage Lister::list(AccountId account, const ListRequest& req) const {
    if (req.pageSize < 1 || req.pageSize > kMaxPageSize)
        throw ApiError(ErrorCode::BadInput, "page_size must be between 1 and 10000");
    const auto components = CloudPath::parse(req.path);
    bool wild = false;
    for (const auto& c : components) wild = wild || CloudPath::hasWildcard(c);

    std::optional<boost::regex> filter;
    if (!req.filter.empty()) {
        if (wild) throw ApiError(ErrorCode::BadInput, "A filter needs a folder path without wild cards");
        if (req.filter.size() > kMaxFilterBytes) throw ApiError(ErrorCode::BadInput, "The filter is longer than 1024 bytes");
        try {
            filter.emplace(req.filter, boost::regex::perl);
        } catch (const boost::regex_error& e) {
            throw ApiError(ErrorCode::BadInput, std::string("Invalid filter: ") + e.what());
        }
    }
    const std::string after = req.cursor.empty() ? std::string() : decodeCursor(req.cursor);
    const std::size_t page = req.pageSize;

    ListPage out;
    std::vector<Entry> body;     // the entries that count towards the page size
    std::optional<Entry> head;

    if (!wild) {
        const std::string key = CloudPath::keyOf(components);
        auto e = store_.entryByKey(account, key);
        if (!e || !visible(*e, req.includeDeleted)) return out;
        if (filter) {
            if (!e->folder) return out;
            std::string scanFrom = after;
            while (body.size() <= page) {
                auto batch = req.recurse ? store_.descendants(account, key, scanFrom, req.includeDeleted, kScanBatch)
                                         : store_.children(account, key, scanFrom, req.includeDeleted, kScanBatch);
                for (Entry& c : batch) {
                    bool match;
                    try {
                        match = boost::regex_match(c.name, *filter);
                    } catch (const std::runtime_error&) {
                        throw ApiError(ErrorCode::BadInput, "The filter is too complex");
                    }
                    if (match) body.push_back(std::move(c));
                    if (body.size() > page) break;
                }
                if (batch.size() < kScanBatch || body.size() > page) break;
                scanFrom = batch.back().key;
            }
        } else if (!e->folder) {
            out.entries.push_back({*e, {}});
            if (req.includeParts) out.entries.back().parts = store_.fileParts(e->id, req.partLimit);
            return out;
        } else {
            head = *e;
            body = req.recurse ? store_.descendants(account, key, after, req.includeDeleted, page + 1)
                               : store_.children(account, key, after, req.includeDeleted, page + 1);
        }
    } else {
        for (Entry& m : expand(store_, account, components, req.includeDeleted)) {
            if (body.size() > page) break;
            const std::string mKey = m.key;
            const bool descend = req.recurse && m.folder;
            if (m.key > after) body.push_back(std::move(m));
            if (descend && body.size() <= page) {
                auto d = store_.descendants(account, mKey, after, req.includeDeleted, page + 1 - body.size());
                for (Entry& x : d) body.push_back(std::move(x));
            }
        }
    }

    if (body.size() > page) {
        body.resize(page);
        out.more = true;
        out.cursor = encodeCursor(body.back().key);
    }
    if (head) out.entries.push_back({std::move(*head), {}});
    for (Entry& e : body) out.entries.push_back({std::move(e), {}});
    if (req.includeParts)
        for (auto& le : out.entries)
            if (!le.entry.folder) le.parts = store_.fileParts(le.entry.id, req.partLimit);
    return out;
}

}  // namespace zarnu::cloud
