#include <gtest/gtest.h>

#include "PresenterFixture.h"
#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/util/PathNormalization.h"

namespace qn::test {
namespace {

class QNiCloudDocumentsPresenterPathClassificationTest : public PresenterFixture {};

TEST_F(QNiCloudDocumentsPresenterPathClassificationTest, LocatesItsDirectoriesAndClassifiesPaths) {
    installCloud(std::nullopt);
    const auto presenter = makePresenter();
    const std::string container = presenter->containerURL().path();
    const std::string documents = presenter->documentsDirectoryURL().path();
    const std::string metadata = presenter->metadataDirectoryURL().path();
    const std::string file = documents + "/Notes/a.txt";
    EXPECT_EQ(presenter->containerURL(), QNiCloudContainerURLFromIdentifier(kContainer));
    EXPECT_EQ(presenter->driveDirectoryURL().path(), home.pathOf("Mobile Documents"));
    EXPECT_EQ(documents, container + "/Documents");
    EXPECT_EQ(presenter->metadataDirectoryURL(), home.urlOf("Support/iCloudMetadata", true));
    const auto cache = presenter->cache();  // made on first use, for the normalised Documents
    EXPECT_EQ(presenter->cache(), cache);
    EXPECT_EQ(cache->cachedDirectoryPath(), documents);
    EXPECT_EQ(
        QNiCloudDocumentsPresenter::documentsDirectoryURLFromContainerIdentifier(kContainer).path(),
        documents);

    // The container itself is not an item, Documents is; empty paths are nothing.
    EXPECT_FALSE(presenter->isiCloudItemPath(container));
    EXPECT_TRUE(presenter->isiCloudItemPath(documents));
    EXPECT_FALSE(presenter->isiCloudItemPath(metadata));
    EXPECT_FALSE(presenter->isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(""));

    // Spellings of Documents that the path predicates equate, and what is only below it.
    EXPECT_TRUE(presenter->isiCloudDocumentsDirectoryPath(lowercasePath(documents) + "/"));
    EXPECT_TRUE(presenter->isiCloudDocumentsDirectoryURL(
        URL::fileURLWithPath(documents + "/Notes/..", true)));
    EXPECT_FALSE(presenter->isiCloudDocumentsDirectoryPath(file));
    EXPECT_FALSE(presenter->isiCloudDocumentsDirectorySubItem(documents));
    EXPECT_TRUE(presenter->isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(documents));
    EXPECT_TRUE(presenter->isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryURL(
        URL::fileURLWithPath(file, false)));
    EXPECT_FALSE(presenter->isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(
        documents + "-old/a.txt"));
    EXPECT_TRUE(presenter->isiCloudMetadataSubItemPath(metadata));
    EXPECT_TRUE(
        presenter->isiCloudMetadataSubItemURL(URL::fileURLWithPath(metadata + "/x", false)));

    // The reference directories are read at each call.
    presenter->setContainerURL(home.urlOf("Elsewhere", true));
    EXPECT_TRUE(presenter->isiCloudItemPath(home.pathOf("Elsewhere/a")));
    EXPECT_FALSE(presenter->isiCloudItemPath(file));

    // Without an identifier, the application's default container.
    setApplicationIdentifier("com.example.Host");
    EXPECT_EQ(makePresenter("")->containerIdentifier(), "iCloud.com.example.Host");
    EXPECT_EQ(makePresenter(std::nullopt)->containerIdentifier(), "iCloud.com.example.Host");
    setApplicationIdentifier("");
}

}  // namespace
}  // namespace qn::test
