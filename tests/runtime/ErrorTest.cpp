#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qn/Error.h"
#include "qn/LocalizedString.h"

namespace {

// Restores the default lookup even when a test fails half-way.
struct ProviderReset {
    ~ProviderReset() { qn::setLocalizedStringProvider(nullptr); }
};

TEST(ErrorTest, DescriptionsFallBackToFoundationTextAndShowTheUnderlyingError) {
    EXPECT_FALSE(qn::Error());
    EXPECT_TRUE(qn::Error("", 5));
    // Only a string counts as a description.
    EXPECT_EQ(qn::Error("D", 2, {{qn::NSLocalizedDescriptionKey, 7}}).localizedDescription(),
              "The operation couldn\xE2\x80\x99t be completed. (D error 2.)");

    const qn::Error posix = qn::Error::posixError(ENOENT);  // its domain and code: see below
    EXPECT_EQ(qn::Error::posixError(EACCES, {{qn::NSLocalizedDescriptionKey, "Mine"}})
                  .localizedDescription(),
              "Mine");
    EXPECT_EQ(posix.underlyingError(), nullptr);
    EXPECT_EQ(qn::Error("D", 1, {{qn::NSUnderlyingErrorKey, "not an error"}}).underlyingError(),
              nullptr);

    const qn::Error outer(qn::NSCocoaErrorDomain, qn::NSFileReadNoSuchFileError,
                          {{qn::NSFilePathErrorKey, "/x"}, {qn::NSUnderlyingErrorKey, posix}});
    ASSERT_NE(outer.underlyingError(), nullptr);
    EXPECT_EQ(*outer.underlyingError(), posix);
    EXPECT_EQ(fmt::format("{}", outer),
              "Error Domain=NSCocoaErrorDomain Code=260 \"The operation couldn\xE2\x80\x99t be "
              "completed. (NSCocoaErrorDomain error 260.)\" UserInfo={NSFilePath=/x, "
              "NSUnderlyingError={Error Domain=NSPOSIXErrorDomain Code=2 \"No such file or "
              "directory\" UserInfo={NSLocalizedDescription=No such file or directory}}}");
}

TEST(LocalizedStringTest, DefaultRuleAndProviderFallback) {
    ProviderReset reset;
    EXPECT_EQ(qn::localizedString("Cancel"), "Cancel");
    EXPECT_EQ(qn::localizedString("CANCEL_BUTTON", "Cancel"), "Cancel");

    qn::setLocalizedStringProvider(
        [](std::string_view key, std::string_view table) -> std::optional<std::string> {
            if (key == "Cancel" && table == "Buttons") {
                return "Annuler";
            }
            if (key == "The operation couldn\xE2\x80\x99t be completed.") {
                return "Impossible de terminer l\xE2\x80\x99op\xC3\xA9ration.";
            }
            return std::nullopt;
        });
    EXPECT_EQ(qn::localizedString("Cancel", "", "Buttons"), "Annuler");
    EXPECT_EQ(qn::localizedString("Cancel"), "Cancel");
    EXPECT_EQ(qn::localizedString("OK_KEY", "OK", "Buttons"), "OK");
    EXPECT_EQ(qn::Error("D", 1).localizedDescription(),
              "Impossible de terminer l\xE2\x80\x99op\xC3\xA9ration. (D error 1.)");
}

TEST(LocalizedStringTest, LookupsRaceWithInstallingProviders) {
    ProviderReset reset;
    std::atomic<bool> stop = false;
    std::vector<std::jthread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                const std::string text = qn::localizedString("Key", "Value");
                ASSERT_TRUE(text == "Value" || text == "Translated") << text;
            }
        });
    }
    for (int i = 0; i < 1000; ++i) {
        qn::setLocalizedStringProvider(
            [](std::string_view, std::string_view) -> std::optional<std::string> {
                return "Translated";
            });
        qn::setLocalizedStringProvider(nullptr);
    }
    stop = true;
    readers.clear();  // joins them
}

}  // namespace
