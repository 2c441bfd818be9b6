#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <utility>
#include <vector>

#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace {

// "é" composed and decomposed, "É" composed.
constexpr const char* kEAcute = "\u00e9";
constexpr const char* kEAcuteDecomposed = "e\u0301";
constexpr const char* kCapitalEAcute = "\u00c9";

std::string key(std::string_view path) {
    return qn::lowercaseNFC(qn::stringByNormalizingPath(path));
}

// Every string of up to `length` tokens.
std::vector<std::string> allStrings(const std::vector<std::string>& tokens, int length) {
    std::vector<std::string> result{""};
    std::size_t begin = 0;
    for (int i = 0; i < length; ++i) {
        const std::size_t end = result.size();
        for (std::size_t j = begin; j < end; ++j) {
            for (const std::string& token : tokens) {
                result.push_back(result[j] + token);
            }
        }
        begin = end;
    }
    return result;
}

// The rules stated on normalised strings: below on a component boundary.
bool referenceBelow(const std::string& base, const std::string& path) {
    if (base == "/") {
        return path.size() > 1 && path.front() == '/';
    }
    return path.size() > base.size() && path.starts_with(base) && path[base.size()] == '/';
}

// Over every pair of `paths`, the comparisons agree with comparing the keys `keyOf` gives.
template <class KeyOf>
void expectAgreement(const std::vector<std::string>& paths, KeyOf keyOf) {
    std::vector<std::string> keys;
    for (const std::string& path : paths) {
        keys.push_back(keyOf(path));
    }
    for (std::size_t i = 1; i < paths.size(); ++i) {
        for (std::size_t j = 1; j < paths.size(); ++j) {
            ASSERT_EQ(qn::isEqualToPath(paths[i], paths[j]), keys[i] == keys[j])
                << paths[i] << " vs " << paths[j];
            ASSERT_EQ(qn::isBasePathOfPath(paths[i], paths[j]), referenceBelow(keys[i], keys[j]))
                << paths[i] << " of " << paths[j];
        }
    }
}

TEST(PathNormalizationTest, StandardizesComposesKeepsCaseAndIsIdempotent) {
    const std::string composed = std::string("/Docs/Caf") + kEAcute + "/x";
    const std::pair<std::string, std::string> cases[] = {
        {"/Docs//./a/../B/", "/Docs/B"},
        {std::string("/Docs/Cafe\u0301/./x/"), composed},
        {std::string("/Docs/Cafe\u0301/y/../x"), composed},
        {"/\u212A", "/K"},             // the Kelvin sign's canonical form is ASCII
        {"/a\xff/b//", "/a\xff/b"},    // ill-formed UTF-8 is kept byte for byte
        {"/\xcc\x81x", "/\xcc\x81x"},  // a combining mark never composes across "/"
        {"", ""},
    };
    for (const auto& [input, expected] : cases) {
        const std::string once = qn::stringByNormalizingPath(input);
        EXPECT_EQ(once, expected) << input;
        EXPECT_EQ(qn::stringByNormalizingPath(once), once) << input;
    }
    EXPECT_EQ(qn::stringByNormalizingPath("/a//b/", 0), "/a//b/");
}

TEST(PathNormalizationTest, LowercasingUsesFullUnicodeMappingInTheRootLocale) {
    EXPECT_EQ(qn::lowercasePath("/\u00c0B/\u00c7"), "/\u00e0b/\u00e7");
    EXPECT_EQ(qn::lowercasePath("I\u0130"), "ii\u0307");  // no Turkish dotless i
    EXPECT_EQ(qn::lowercasePath("/\u039f\u0394\u039f\u03a3/x"), "/\u03bf\u03b4\u03bf\u03c2/x");
    EXPECT_EQ(qn::lowercaseNFC("E\u0301"), kEAcute);
    EXPECT_EQ(qn::lowercaseNFC(kCapitalEAcute), kEAcute);
}

TEST(PathNormalizationTest, ComparisonsIgnoreSpellingCaseAndCompositionOnComponentBoundaries) {
    const std::string eAcute = kEAcute, decomposed = kEAcuteDecomposed, capital = kCapitalEAcute;
    struct Case {
        std::string a, b;
        bool equal, aIsBaseOfB;
    };
    // Short spellings of ASCII and accented names are covered exhaustively below.
    const Case cases[] = {
        {"/a/x/../b", "/A/B", true, false},  // ".." leaves the allocation-free path
        {"/a", "/a/b/..", true, false},
        {"/Caf" + decomposed, "/CAF" + capital + "/x", false, true},
        {"/Caf" + eAcute, "/Caf" + eAcute + "s/x", false, false},
        {"/\u212A", "/k", true, false},
        {"/J\u030C", "/\u01F0", true, false},  // lower-casing "J" lets the caron compose
        {"/\u039f\u0394\u039f\u03a3/x", "/\u03bf\u03b4\u03bf\u03c2/X", true, false},  // final sigma
        {"", "", false, false},
        {"", "/a", false, false},
        {"/a", "", false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(qn::isEqualToPath(c.a, c.b), c.equal) << c.a << " vs " << c.b;
        EXPECT_EQ(qn::isEqualToPath(c.b, c.a), c.equal) << c.b << " vs " << c.a;
        EXPECT_EQ(qn::isBasePathOfPath(c.a, c.b), c.aIsBaseOfB) << c.a << " of " << c.b;
        if (!c.a.empty() && !c.b.empty()) {
            // The cache keys paths by this form; it must agree with the comparison.
            EXPECT_EQ(key(c.a) == key(c.b), c.equal) << c.a << " vs " << c.b;
        }
    }
}

// The comparisons take shortcuts (in place for standard ASCII, component by component, ICU only
// for non-ASCII components); over every short path they must agree with comparing normal forms.
TEST(PathNormalizationTest, ShortcutsAgreeWithComparingNormalForms) {
    expectAgreement(allStrings({"/", ".", "a", "B"}, 4), [](const std::string& path) {
        std::string lower = qn::stringByStandardizingPath(path);
        EXPECT_EQ(qn::stringByNormalizingPath(path), lower) << path;
        for (char& c : lower) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        return lower;
    });
    expectAgreement(allStrings({"/", ".", "e", kEAcute, kCapitalEAcute, "\u0301"}, 3), key);
}

TEST(PathNormalizationTest, DeletingTheBeginningKeepsThePathsOwnSpelling) {
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/c/Docs/a/b", "/c/Docs"), "/a/b");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/c//Docs/A/./b/", "/C/docs/"), "/A/b");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/c/Docs/", "/c//docs"), "");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/a/b", "/"), "/a/b");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/c//Docs2/a", "/c/Docs"), "/c//Docs2/a");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/a", ""), "/a");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("", "/"), "");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath(std::string("/Caf") + kEAcute + "/Re\u0301s",
                                                  std::string("/cafe\u0301")),
              std::string("/R") + kEAcute + "s");
    // Lower-casing "İ" lengthens it by a byte; the remainder is still cut at the right place.
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/i\u0307/x/y", "/\u0130"), "/x/y");
    EXPECT_EQ(qn::stringByDeletingBeginningOfPath("/\u0130/x/y", "/i\u0307"), "/x/y");

    EXPECT_EQ(qn::stringByDeletingBeginningOfNormalizedPath("/c/Docs/a/b", "/c/docs"), "/a/b");
    EXPECT_EQ(qn::stringByDeletingBeginningOfNormalizedPath("/c/Docsa", "/c/Docs"), "/c/Docsa");
    EXPECT_EQ(qn::stringByDeletingBeginningOfNormalizedPath(
                  std::string("/") + kCapitalEAcute + "/x", std::string("/") + kEAcute),
              "/x");
}

TEST(PathNormalizationTest, DeletingPrivateOnlyForAliasedRoots) {
    EXPECT_EQ(qn::stringByDeletingPrivate("/private/var/mobile/a"), "/var/mobile/a");
    EXPECT_EQ(qn::stringByDeletingPrivate("/private/tmp"), "/tmp");
    EXPECT_EQ(qn::stringByDeletingPrivate("/private/etc/hosts"), "/etc/hosts");
    for (const char* kept :
         {"/private/variable/a", "/private/Users/a", "/private", "/privatevar/a"}) {
        EXPECT_EQ(qn::stringByDeletingPrivate(kept), kept);
    }
}

}  // namespace
