#include "BuildSlots.h"

#include "MetadataStore.h"

#include <boost/json.hpp>

#include <stdexcept>

namespace zarnu::cloud {

namespace json = boost::json;

namespace {

// One setting per account: "buildslots/<account id>".
std::string settingName(std::int64_t account) { return "buildslots/" + std::to_string(account); }

json::object parseObject(std::string_view text, const char* what) {
    json::error_code ec;
    json::value v = json::parse(text, ec);
    if (ec) throw std::invalid_argument(std::string(what) + " is not valid JSON: " + ec.message());
    if (!v.is_object()) throw std::invalid_argument(std::string(what) + " is not a JSON object");
    return std::move(v.as_object());
}

}  // namespace

std::string BuildSlots::merge(std::string_view current, std::string_view update) {
    json::object merged = current.empty() ? json::object{{"platforms", json::object{}}} : parseObject(current, "stored slots");
    json::object incoming = parseObject(update, "the body");
    const json::value* platforms = incoming.if_contains("platforms");
    if (!platforms || !platforms->is_object()) throw std::invalid_argument("\"platforms\" must be an object");

    // Check everything first so that a malformed body changes nothing.
    for (const auto& [plat, slots] : platforms->as_object()) {
        if (!slots.is_object())
            throw std::invalid_argument("platform \"" + std::string(plat) + "\" must be an object of slots");
        for (const auto& [slot, value] : slots.as_object()) {
            const std::string where = std::string(plat) + "/" + std::string(slot);
            if (!value.is_object()) throw std::invalid_argument("slot " + where + " must be an object");
            for (const char* field : {"download_token", "version"}) {
                const json::value* f = value.as_object().if_contains(field);
                if (!f || !f->is_string())
                    throw std::invalid_argument("slot " + where + " needs a string \"" + field + "\"");
            }
        }
    }
    if (!merged["platforms"].is_object()) merged["platforms"] = json::object{};
    json::object& target = merged["platforms"].as_object();
    for (const auto& [plat, slots] : platforms->as_object()) {
        if (!target[plat].is_object()) target[plat] = json::object{};
        json::object& targetSlots = target[plat].as_object();
        for (const auto& [slot, value] : slots.as_object()) targetSlots[slot] = value;
    }
    return json::serialize(merged);
}

std::string BuildSlots::load(MetadataStore& store, std::int64_t account) {
    auto current = store.setting(settingName(account));
    return current ? *current : std::string(R"({"platforms":{}})");
}

void BuildSlots::store(MetadataStore& store, std::int64_t account, std::string_view update) {
    store.updateSetting(settingName(account), [&](const std::optional<std::string>& current) {
        return merge(current ? *current : std::string(), update);
    });
}

}  // namespace zarnu::cloud
