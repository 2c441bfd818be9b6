// Where a path lies relative to the container, its Documents directory and the library's
// metadata directory. The reference directories are read on every call because set-up may
// repair the container's location; the arguments are compared as given, since the path
// predicates already treat every spelling of one location alike.

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/util/PathNormalization.h"

namespace {

bool isPathOrBelow(std::string_view directory, std::string_view path) {
    return qn::isBasePathOfPath(directory, path) || qn::isEqualToPath(directory, path);
}

}  // namespace

bool QNiCloudDocumentsPresenter::isiCloudItemPath(std::string_view path) const {
    if (path.empty()) {
        return false;
    }
    return qn::isBasePathOfPath(containerURL().path(), path);
}

bool QNiCloudDocumentsPresenter::isiCloudItemURL(const qn::URL& url) const {
    return isiCloudItemPath(url.path());
}

bool QNiCloudDocumentsPresenter::isiCloudDocumentsDirectoryPath(std::string_view path) const {
    if (path.empty()) {
        return false;
    }
    return qn::isEqualToPath(documentsDirectoryURL().path(), path);
}

bool QNiCloudDocumentsPresenter::isiCloudDocumentsDirectoryURL(const qn::URL& url) const {
    return isiCloudDocumentsDirectoryPath(url.path());
}

bool QNiCloudDocumentsPresenter::isiCloudDocumentsDirectorySubItem(std::string_view path) const {
    return qn::isBasePathOfPath(documentsDirectoryURL().path(), path);
}

bool QNiCloudDocumentsPresenter::isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(
    std::string_view path) const {
    if (path.empty()) {
        return false;
    }
    return isPathOrBelow(documentsDirectoryURL().path(), path);
}

bool QNiCloudDocumentsPresenter::isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryURL(
    const qn::URL& url) const {
    return isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(url.path());
}

bool QNiCloudDocumentsPresenter::isiCloudMetadataSubItemPath(std::string_view path) const {
    return isPathOrBelow(metadataDirectoryURL().path(), path);
}

bool QNiCloudDocumentsPresenter::isiCloudMetadataSubItemURL(const qn::URL& url) const {
    return isiCloudMetadataSubItemPath(url.path());
}
