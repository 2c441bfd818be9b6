#include "qn/FileManager.h"

#include <mutex>
#include <utility>

#include "qn/PosixFileManager.h"

namespace qn {
namespace {

// Never destroyed: threads still running while the process exits may ask for the manager.
struct DefaultManagerState {
    std::mutex mutex;
    std::shared_ptr<FileManager> real = std::make_shared<PosixFileManager>();
    std::shared_ptr<FileManager> current = real;
};

DefaultManagerState& defaultManagerState() {
    static DefaultManagerState* const state = new DefaultManagerState;
    return *state;
}

}  // namespace

std::shared_ptr<FileManager> FileManager::defaultManager() {
    DefaultManagerState& state = defaultManagerState();
    std::lock_guard lock(state.mutex);
    return state.current;
}

void FileManager::setDefaultManager(std::shared_ptr<FileManager> manager) {
    DefaultManagerState& state = defaultManagerState();
    std::shared_ptr<FileManager> previous;  // Released outside the lock.
    std::lock_guard lock(state.mutex);
    previous = std::exchange(state.current, manager ? std::move(manager) : state.real);
}

}  // namespace qn
