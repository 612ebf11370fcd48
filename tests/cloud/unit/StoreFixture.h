#pragma once
// A fresh SQLite metadata store in a temporary folder, with two accounts.

#include "CloudPath.h"
#include "CloudTestSupport.h"
#include "Fingerprint.h"
#include "SqliteMetadataStore.h"

#include <gtest/gtest.h>

#include <memory>

namespace zarnu::cloud::test {

class StoreFixture : public ::testing::Test {
protected:
    void SetUp() override {
        alice = store->createAccount("alice", "hash", 1000);
        bob = store->createAccount("bob", "hash", 1000);
    }

    static std::string key(std::string_view path) { return CloudPath::keyOf(CloudPath::parse(path)); }

    /// A part the account holds, made from `content`.
    PartRef held(AccountId account, const std::string& content) {
        PartRef p{Fingerprint::of(content), content.size()};
        store->addHeldParts(account, {p});
        return p;
    }
    Entry file(std::string_view path, std::int64_t now = 2000) {
        return store->createFile(alice, key(path), {held(alice, std::string(path))}, now, now);
    }
    Entry folder(std::string_view path) { return store->makeFolder(alice, key(path), 2000); }

    TempDir dir_;  // first made, last removed
    std::unique_ptr<SqliteMetadataStore> store = std::make_unique<SqliteMetadataStore>(dir_.path / "meta.sqlite", 2);
    AccountId alice = 0, bob = 0;
};

}  // namespace zarnu::cloud::test
