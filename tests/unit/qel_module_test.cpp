// Module instances: loading a class's library by name, counted handles and
// the release rule, and the errors users see when a library is missing.
#include <gtest/gtest.h>

#include "CloudSync/YCloudSyncInstance.h"
#include "Qel/Exception/YError.h"
#include "Qel/Module/YInstanceClassPtr.h"

namespace {

using EnginePtr = Qel::Module::YInstanceClassPtr<CloudSync::YCloudSyncInstance>;

unsigned int References(const EnginePtr& engine) {
  unsigned int count = 0;
  EXPECT_EQ(qel_handle_refcount(Qel::Module::kHandleInstance, engine.Get(), &count), 0);
  return count;
}

TEST(ModuleInstance, CountedHandlesStopAndFreeTheEngineWithTheLastReference) {
  EnginePtr engine = EnginePtr::AllocateInstance("CloudSync", "test engine", "");
  ASSERT_TRUE(engine);
  EXPECT_EQ(engine->GetInstanceName(), "test engine");
  ASSERT_NE(engine->GetPeerRegistrar(), nullptr);
  EXPECT_EQ(References(engine), 1u);

  QELINS handle = engine.Get();
  {
    EnginePtr copy = engine;
    EXPECT_EQ(References(engine), 2u);
  }
  EXPECT_EQ(References(engine), 1u) << "a copy going only drops its reference";
  EXPECT_NE(qel_instance_get(handle), nullptr);

  EnginePtr moved = std::move(engine);
  EXPECT_FALSE(engine);
  moved.Reset();
  EXPECT_EQ(qel_instance_get(handle), nullptr) << "the last reference destroyed the instance";
  unsigned int count = 0;
  EXPECT_EQ(qel_handle_refcount(Qel::Module::kHandleInstance, handle, &count), Qel::Module::kInvalidHandle);
  EXPECT_EQ(qel_instance_stop(handle), Qel::Module::kInvalidHandle) << "a freed handle is never valid again";
}

TEST(ModuleInstance, ErrorsNameTheClassAndTheLibrary) {
  auto raised = [](const char* className) -> Qel::Exception::YError {
    try {
      EnginePtr::AllocateInstance(className, "x", "");
    } catch (const Qel::Exception::YError& e) {
      return e;
    }
    ADD_FAILURE() << className << " was allocated";
    return Qel::Exception::YError(0, 0, 0, 0, "", "");
  };
  Qel::Exception::YError missing = raised("NoSuchModule");
  EXPECT_EQ(missing.GetLogType(), 198u);
  EXPECT_EQ(missing.GetCcode(), static_cast<unsigned int>(Qel::Module::kModuleLoadFailed));
  EXPECT_EQ(missing.GetFunction(), "AllocateInstance");
  EXPECT_NE(missing.GetInfo().find("libNoSuchModule.so"), std::string::npos) << missing.GetInfo();

  // libQel.so loads, but it is a runtime, not a module.
  Qel::Exception::YError no_entry = raised("Qel");
  EXPECT_EQ(no_entry.GetCcode(), static_cast<unsigned int>(Qel::Module::kModuleEntryMissing));
  EXPECT_NE(no_entry.GetInfo().find("qel_module_create_instance"), std::string::npos) << no_entry.GetInfo();

  EXPECT_EQ(raised("../CloudSync").GetCcode(), static_cast<unsigned int>(Qel::Module::kInvalidArgument))
      << "a class name is never a path";
}

TEST(ModuleInstance, AnEmptyHandleRaisesAtUse) {
  EnginePtr empty;
  try {
    empty->GetPeerRegistrar();
    FAIL() << "an empty handle was dereferenced";
  } catch (const Qel::Exception::YError& e) {
    EXPECT_EQ(e.GetLogType(), 15u);
    EXPECT_EQ(e.GetCcode(), 55u);
    EXPECT_EQ(e.GetFunction(), "operator->");
    EXPECT_EQ(e.GetFile(), "libqel/Qel/Module/YInstance");
  }
}

}  // namespace
