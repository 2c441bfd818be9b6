#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "qn/util/ContainerHelpers.h"

namespace {

// Sets (or, given nullptr, unsets) an environment variable until the end of the scope.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        set(value);
    }
    ~ScopedEnvironment() { set(old_ ? old_->c_str() : nullptr); }

private:
    void set(const char* value) const { value ? ::setenv(name_, value, 1) : ::unsetenv(name_); }

    const char* name_;
    std::optional<std::string> old_;
};

class ContainerHelpersTest : public testing::Test {
protected:
    void TearDown() override {
        qn::setApplicationIdentifier("");
        qn::setUbiquityDriveDirectory("");
        qn::setApplicationSupportDirectory("");
    }
};

TEST_F(ContainerHelpersTest, ContainerFoldersLiveInTheDriveDirectoryUnderXdgDataHome) {
    const ScopedEnvironment data("XDG_DATA_HOME", "/data/home/");
    EXPECT_EQ(qn::ubiquityDriveDirectory(), "/data/home/QNiCloud/Mobile Documents");
    const qn::URL container = QNiCloudContainerURLFromIdentifier("iCloud.com.example.App");
    EXPECT_EQ(container.path(), "/data/home/QNiCloud/Mobile Documents/iCloud~com~example~App");
    EXPECT_TRUE(container.hasDirectoryPath());
    EXPECT_EQ(container.URLByDeletingLastPathComponent().path(), qn::ubiquityDriveDirectory());

    qn::setUbiquityDriveDirectory("/drive/");
    EXPECT_EQ(QNiCloudContainerURLFromIdentifier("iCloud.a.b").path(), "/drive/iCloud~a~b");
    EXPECT_TRUE(QNiCloudContainerURLFromIdentifier("").isEmpty());
    EXPECT_TRUE(QNiCloudContainerURLFromIdentifier("iCloud.a/../b").isEmpty());
}

TEST_F(ContainerHelpersTest, DataHomeFallsBackToHomeWhenUnsetOrRelative) {
    const ScopedEnvironment home("HOME", "/home/someone");
    {
        const ScopedEnvironment data("XDG_DATA_HOME", nullptr);
        EXPECT_EQ(qn::userDataDirectory(), "/home/someone/.local/share");
    }
    const ScopedEnvironment data("XDG_DATA_HOME", "relative/data");
    EXPECT_EQ(qn::userDataDirectory(), "/home/someone/.local/share");
}

TEST_F(ContainerHelpersTest, IdentityDefaultsToTheExecutableAndNamesTheSupportDirectory) {
    // The test program is qn_util_tests; "_" is not allowed in an identity.
    EXPECT_EQ(QNiCloudContainerIdentifier(), "iCloud.local.qn-util-tests");
    const ScopedEnvironment data("XDG_DATA_HOME", "/data");
    qn::setApplicationIdentifier("com.example.App");
    EXPECT_EQ(QNiCloudContainerIdentifier(), "iCloud.com.example.App");
    EXPECT_EQ(QNApplicationSupportDirectoryAdd("Cache.db"), "/data/com.example.App/Cache.db");
    EXPECT_EQ(QNApplicationSupportDirectoryAdd(""), "/data/com.example.App");
    qn::setApplicationSupportDirectory("/tmp/support/");
    EXPECT_EQ(QNApplicationSupportDirectoryAdd("/Cache.db"), "/tmp/support/Cache.db");
}

}  // namespace
