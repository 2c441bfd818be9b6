#include <gtest/gtest.h>

#include "QNiCloud/QNiCloudBackgroundOperation.h"
#include "QNiCloud/QNiCloudDirectoryDownload.h"
#include "QNiCloud/QNiCloudFileDownload.h"

namespace {

TEST(QNiCloudFileDownloadTest, EqualityFollowsPathAndTokenAndCancellationTheDirectory) {
    const auto token = QNiCloudBackgroundOperation::operation();
    const auto a = QNiCloudFileDownload::fileDownloadWithPath("/d/A.txt");
    const auto b = QNiCloudFileDownload::fileDownloadWithPath("/d/a.txt");
    EXPECT_EQ(a->priority(), 0);
    EXPECT_EQ(a->sizeToDownload() + a->downloadedSize(), 0u);
    EXPECT_FALSE(a->backgroundOperation() || a->directoryDownload() || a->completionHandler());
    EXPECT_FALSE(a->isEqual(b.get()));  // no token on either side
    EXPECT_TRUE(a->isEqual(a.get()));
    a->setBackgroundOperation(token);
    b->setBackgroundOperation(token);
    EXPECT_TRUE(a->isEqual(b.get()));  // paths compare without regard to case
    b->setBackgroundOperation(QNiCloudBackgroundOperation::operation());
    EXPECT_FALSE(a->isEqual(b.get()));
    EXPECT_EQ(QNiCloudFileDownload::fileDownloadWithPath("/d/A.txt")->hash(), a->hash());

    // A directory record equals only directory records; a file record accepts either.
    const auto directory = QNiCloudDirectoryDownload::fileDownloadWithPath("/d/A.txt");
    directory->setBackgroundOperation(token);
    EXPECT_TRUE(a->isEqual(directory.get()));
    EXPECT_FALSE(directory->isEqual(a.get()));

    // A file of a directory request is cancelled with the directory's token.
    const auto file = QNiCloudFileDownload::fileDownloadWithPath("/d/A.txt/x");
    file->setDirectoryDownload(directory);
    EXPECT_FALSE(file->isCancelled());
    token->cancel();
    EXPECT_TRUE(file->isCancelled() && a->isCancelled());
}

}  // namespace
