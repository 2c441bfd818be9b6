#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "qn/Exception.h"
#include "qn/ForwardingFileManager.h"
#include "qn/PosixFileManager.h"
#include "qn/util/QNFileManagerDelegate.h"
#include "support/TemporaryDirectory.h"

namespace {

using qn::test::TemporaryDirectory;

// What a test would write to meet a removal the disk refuses: the suite runs as root, for whom
// chmod cannot provoke EACCES.
class RefusingRemoval final : public qn::ForwardingFileManager {
public:
    using ForwardingFileManager::ForwardingFileManager;

    bool removeItemAtURL(const qn::URL& url, qn::Error* error) override {
        qn::setError(error, qn::Error(qn::NSCocoaErrorDomain, qn::NSFileWriteNoPermissionError,
                                      {{qn::NSFilePathErrorKey, url.path()},
                                       {qn::NSUnderlyingErrorKey, qn::Error::posixError(EACCES)}}));
        return false;
    }
};

// Restores the real default manager even when an assertion fails half-way.
struct DefaultManagerReset {
    ~DefaultManagerReset() { qn::FileManager::setDefaultManager(nullptr); }
};

TEST(ForwardingFileManagerTest, AnInjectedFaultMeetsTheCallerWhileEverythingElseHitsTheDisk) {
    TemporaryDirectory dir;
    DefaultManagerReset reset;
    const std::shared_ptr<qn::FileManager> real = qn::FileManager::defaultManager();
    ASSERT_NE(std::dynamic_pointer_cast<qn::PosixFileManager>(real), nullptr);
    qn::FileManager::setDefaultManager(std::make_shared<RefusingRemoval>(real));
    const std::shared_ptr<qn::FileManager> manager = qn::FileManager::defaultManager();

    dir.write("folder/doc", "contents");
    qn::Error error;
    EXPECT_FALSE(manager->removeItemAtURL(dir.urlOf("folder"), &error));
    EXPECT_EQ(error.code(), qn::NSFileWriteNoPermissionError);
    EXPECT_TRUE(dir.exists("folder/doc"));

    // The delegate lives on the target; a private manager is the target's kind, without the
    // fault and without the delegate.
    const auto delegate = std::make_shared<QNFileManagerDelegate>();
    manager->setDelegate(delegate);
    EXPECT_EQ(real->delegate(), delegate);
    manager->setDelegate(nullptr);
    const std::shared_ptr<qn::FileManager> privateManager = manager->makePrivateManager();
    EXPECT_NE(std::dynamic_pointer_cast<qn::PosixFileManager>(privateManager), nullptr);
    EXPECT_NE(privateManager, real);
    EXPECT_TRUE(privateManager->removeItemAtURL(dir.urlOf("folder"), &error))
        << error.description();

    qn::FileManager::setDefaultManager(nullptr);
    EXPECT_EQ(qn::FileManager::defaultManager(), real);
    EXPECT_THROW(qn::ForwardingFileManager(nullptr), qn::InternalInconsistencyException);
}

}  // namespace
