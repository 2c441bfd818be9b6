#include "QNiCloud/QNiCloudCacheEntry.h"

#include <fmt/format.h>

#include <cstring>
#include <vector>

#include "QNiCloudCachePaths.h"

namespace qn::detail {

const char* QNiCloudCacheEntryName::heapData() const noexcept {
    const char* data;
    std::memcpy(&data, bytes_, sizeof data);
    return data;
}

std::size_t QNiCloudCacheEntryName::heapSize() const noexcept {
    std::size_t size;
    std::memcpy(&size, bytes_ + sizeof(char*), sizeof size);
    return size;
}

void QNiCloudCacheEntryName::release() noexcept {
    if (isHeap()) {
        delete[] heapData();
    }
    bytes_[kTag] = 0;
}

void QNiCloudCacheEntryName::assign(std::string_view text) {
    std::uint8_t flags = 0;
    if (qn::cache::isPlainComponent(text)) {
        flags |= kPlainBit;
    }
    bool ascii = true;
    for (const char c : text) {
        ascii = ascii && (static_cast<unsigned char>(c) & 0x80) == 0;
    }
    if (ascii) {
        flags |= kAsciiBit;
    }
    if (text.size() <= kTag) {
        // `text` may be a view of this very name: copy before releasing.
        unsigned char copy[kTag];
        std::memcpy(copy, text.data(), text.size());
        release();
        std::memcpy(bytes_, copy, text.size());
        bytes_[kTag] = static_cast<std::uint8_t>(flags | text.size());
        return;
    }
    char* data = new char[text.size()];
    std::memcpy(data, text.data(), text.size());
    const std::size_t size = text.size();
    release();
    std::memcpy(bytes_, &data, sizeof data);
    std::memcpy(bytes_ + sizeof data, &size, sizeof size);
    bytes_[kTag] = static_cast<std::uint8_t>(flags | kHeapBit);
}

}  // namespace qn::detail

QNiCloudCacheEntry::~QNiCloudCacheEntry() {
    if (firstChild_ == nullptr && next_ == nullptr) {
        return;
    }
    // Releasing the child and sibling links in place would destroy their entries from inside
    // this destructor, and theirs from inside those: one stack frame per sibling and per level.
    // Instead, entries this destructor is the last owner of are collected and released one at a
    // time after their own links have been taken out. An entry somebody else still holds keeps
    // its links (and with them its subtree). The count is only a hint: an entry whose other
    // owner lets go meanwhile is destroyed by that owner, running this same loop.
    std::vector<std::shared_ptr<QNiCloudCacheEntry>> pending;
    auto collect = [&pending](std::shared_ptr<QNiCloudCacheEntry>& link) {
        if (link != nullptr && link.use_count() == 1) {
            pending.push_back(std::move(link));
        }
        link.reset();
    };
    try {
        collect(firstChild_);
        collect(next_);
        while (!pending.empty()) {
            std::shared_ptr<QNiCloudCacheEntry> entry = std::move(pending.back());
            pending.pop_back();
            collect(entry->firstChild_);
            collect(entry->next_);
        }
    } catch (...) {
        // Out of memory for the list: what is left is released the ordinary way.
    }
}

namespace {

std::string describe(const std::shared_ptr<QNiCloudMetadataItem>& item) {
    return item == nullptr ? std::string("(null)") : item->description();
}

}  // namespace

std::string QNiCloudCacheEntry::shortDescription() const {
    return fmt::format(
        "<QNiCloudCacheEntry: {}; parent = {}, firstChild = {}, next = {}, prev = {}, name = {}, "
        "metadata item = {}>",
        fmt::ptr(this), fmt::ptr(parent_.lock().get()), fmt::ptr(firstChild_.get()),
        fmt::ptr(next_.get()), fmt::ptr(prev_.lock().get()), name(), describe(metadataItem_));
}

std::string QNiCloudCacheEntry::description() const {
    auto neighbour = [](const std::shared_ptr<QNiCloudCacheEntry>& entry) {
        return entry == nullptr ? std::string() : entry->shortDescription();
    };
    std::string result = fmt::format("<QNiCloudCacheEntry: {};\n", fmt::ptr(this));
    result += fmt::format("    parent = {};\n", neighbour(parent_.lock()));
    result += fmt::format("    firstChild = {};\n", neighbour(firstChild_));
    result += fmt::format("    next = {};\n", neighbour(next_));
    result += fmt::format("    prev = {};\n", neighbour(prev_.lock()));
    result += fmt::format("    name = {};\n", name());
    result += fmt::format("    metadataItem = {};\n", describe(metadataItem_));
    result += ">\n";
    return result;
}
