#include "qn/FileCoordinator.h"

#include <mutex>

#include "CoordinationArbiter.h"
#include "qn/InProcessFileCoordinator.h"

namespace qn {
namespace {

std::mutex factoryMutex;
FileCoordinator::Factory& factory() {
    static FileCoordinator::Factory* current = new FileCoordinator::Factory;
    return *current;
}

}  // namespace

std::shared_ptr<FileCoordinator> FileCoordinator::make(
    std::shared_ptr<FilePresenter> filePresenter) {
    Factory make;
    {
        std::lock_guard lock(factoryMutex);
        make = factory();
    }
    if (make) {
        return make(std::move(filePresenter));
    }
    return std::make_shared<InProcessFileCoordinator>(filePresenter);
}

void FileCoordinator::setFactory(Factory newFactory) {
    std::lock_guard lock(factoryMutex);
    factory() = std::move(newFactory);
}

void FileCoordinator::addFilePresenter(const std::shared_ptr<FilePresenter>& presenter) {
    if (presenter) {
        CoordinationArbiter::shared().addPresenter(presenter);
    }
}

void FileCoordinator::removeFilePresenter(const FilePresenter* presenter) {
    CoordinationArbiter::shared().removePresenter(presenter);
}

std::vector<std::shared_ptr<FilePresenter>> FileCoordinator::filePresenters() {
    return CoordinationArbiter::shared().presenters();
}

}  // namespace qn
