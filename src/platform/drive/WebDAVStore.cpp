#include "qn/WebDAVStore.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "DavClient.h"
#include "DavLock.h"
#include "Multistatus.h"
#include "StoreErrors.h"
#include "StoreIndex.h"
#include "StoreRecord.h"

namespace qn {

using namespace drive;  // the shared errors and checks, the records and their index
using namespace std::chrono_literals;

namespace {

constexpr const char* kMarkerName = "qnicloud-store";
constexpr std::string_view kMarkerHeading = "qnicloud webdav store 1\n";
constexpr std::string_view kHiddenPrefix = ".qnicloud";
constexpr const char* kVersionsName = ".qnicloud-versions";
// The device named beside changes that other WebDAV clients made.
constexpr const char* kOtherClient = "WebDAV";
constexpr const char* kPropertiesWanted =
    R"(<?xml version="1.0" encoding="utf-8"?><D:propfind xmlns:D="DAV:"><D:prop>)"
    R"(<D:resourcetype/><D:getetag/><D:getcontentlength/><D:getlastmodified/>)"
    R"(</D:prop></D:propfind>)";
// Staged uploads older than this belong to uploaders that died.
constexpr auto kAbandonedAfter = std::chrono::hours(24);

using Request = DavClient::Request;
using Response = DavClient::Response;

std::string_view parentOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view nameOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The collection of an item's conflict versions, relative to the account's collection.
std::string versionsOf(std::string_view path) {
    const auto parent = parentOf(path);
    return fmt::format("{}{}{}/{}", parent, parent.empty() ? "" : "/", kVersionsName, nameOf(path));
}

bool isHidden(std::string_view name) {
    return name.starts_with(kHiddenPrefix);
}

// Why the store cannot hold `path`: the names every store refuses, and its own hidden names.
std::optional<Error> invalidPath(std::string_view path) {
    if (auto invalid = DriveStore::validatePath(path)) {
        return invalid;
    }
    for (std::string_view rest = path; !rest.empty();) {
        const std::size_t slash = rest.find('/');
        if (isHidden(rest.substr(0, slash))) {
            return storeError(DriveStoreErrorInvalidName,
                              fmt::format("The store cannot hold the name \"{}\": names starting "
                                          "with \"{}\" are its own.",
                                          path, kHiddenPrefix),
                              path);
        }
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    }
    return std::nullopt;
}

// What a PROPFIND says of one resource.
struct Listed {
    bool isCollection = false;
    std::uint64_t size = 0;
    std::optional<double> lastModified;
    // The ETag without "W/" and quotes (Apache's are weak for a second after a write, then
    // strong with the same value), or size and date for a server that gives none.
    std::string tag;
};

Listed listed(const DavResource& resource) {
    Listed made;
    made.isCollection = resource.isCollection;
    made.size = resource.contentLength.value_or(0);
    made.lastModified = resource.lastModified;
    std::string_view etag = resource.etag;
    if (etag.starts_with("W/")) {
        etag.remove_prefix(2);
    }
    if (etag.size() >= 2 && etag.front() == '"' && etag.back() == '"') {
        etag = etag.substr(1, etag.size() - 2);
    }
    made.tag = !etag.empty()       ? std::string(etag)
               : made.isCollection ? std::string()
                                   : fmt::format("{}-{}", made.size, made.lastModified.value_or(0));
    return made;
}

std::string tagOfHeader(const Response& response) {
    const auto found = response.headers.find("etag");
    if (found == response.headers.end()) {
        return {};
    }
    DavResource resource;
    resource.etag = found->second;
    return listed(resource).tag;
}

DavClient::Options clientOptions(const WebDAVStore::Options& options) {
    DavClient::Options made;
    made.url = options.url;
    made.user = options.user;
    made.password = options.password;
    made.certificateAuthority = options.certificateAuthority;
    made.allowUnverifiedCertificate = options.allowUnverifiedCertificate;
    made.connectTimeout = options.connectTimeout;
    made.stallTimeout = options.stallTimeout;
    made.retries = options.retries;
    return made;
}

// The decoded path of a URL, without a trailing "/": "https://h/dav/a%20b/" -> "/dav/a b".
std::string pathOfUrl(std::string_view url) {
    if (const auto scheme = url.find("://"); scheme != std::string_view::npos) {
        const auto slash = url.find('/', scheme + 3);
        url = slash == std::string_view::npos ? std::string_view() : url.substr(slash);
    }
    std::string path = percentDecode(url).value_or(std::string(url));
    while (path.ends_with('/')) {
        path.pop_back();
    }
    return path;
}

Request request(std::string method, std::string path, std::vector<std::string> headers = {}) {
    Request made;
    made.method = std::move(method);
    made.path = std::move(path);
    made.headers = std::move(headers);
    return made;
}

bool succeeded(const Response& response) {
    return response.status >= 200 && response.status < 300;
}

}  // namespace

struct WebDAVStore::Account {
    std::string name;
    std::string folder;      // the account's collection, relative to the store's URL
    std::string hrefPrefix;  // the decoded path of the collection on the server, with "/"
    std::mutex writeMutex;   // writers of this process take turns; before `mutex`
    std::mutex mutex;        // guards everything below
    StoreIndex index;
    std::optional<std::chrono::steady_clock::time_point> lastWalk;

    std::string remote(std::string_view path) const {
        return path.empty() ? folder : folder + "/" + std::string(path);
    }
    std::string hidden(std::string_view rest) const {
        return fmt::format("{}/{}/{}", folder, kHiddenPrefix, rest);
    }
};

namespace {

// Why no answer came, as a store error.
Error failureError(const DavClient& client, DavClient::Failure failure, const std::string& why,
                   std::string_view path) {
    switch (failure) {
        case DavClient::Failure::Cancelled:
            return storeError(DriveStoreErrorCancelled,
                              fmt::format("The transfer of \"{}\" was stopped.", path), path);
        case DavClient::Failure::Local:
            return storeError(
                DriveStoreErrorIO,
                fmt::format("Could not read or write the local side of \"{}\": {}.", path, why),
                path);
        default:
            return storeError(
                DriveStoreErrorUnreachable,
                fmt::format("The store at {} cannot be reached: {}.", client.options().url, why),
                path);
    }
}

// Sends `request`; the answer, or nullopt with the error when none came or the credentials were
// refused.
std::optional<Response> call(DavClient& client, const Request& request, Error* error) {
    DavClient::Failure failure{};
    std::string why;
    auto response = client.perform(request, &failure, &why);
    if (response && response->status != 401) {
        return response;
    }
    setError(error, response ? storeError(DriveStoreErrorUnreachable,
                                          fmt::format("The store at {} refused the credentials "
                                                      "of \"{}\".",
                                                      client.options().url, client.options().user),
                                          "")
                             : failureError(client, failure, why, request.path));
    return std::nullopt;
}

// PROPFIND of `path` at `depth`; the resources, or nullopt with the error (404 gives an empty
// list).
std::optional<std::vector<DavResource>> propfind(DavClient& client, const std::string& path,
                                                 int depth, Error* error) {
    auto asked = request("PROPFIND", path, {fmt::format("Depth: {}", depth)});
    asked.body = kPropertiesWanted;
    // rclone ends a listing with an error page when an entry goes away while it lists, so a
    // malformed answer is asked for again.
    for (int attempt = 0;; ++attempt) {
        const auto response = call(client, asked, error);
        if (!response) {
            return std::nullopt;
        }
        if (response->status == 404) {
            return std::vector<DavResource>{};
        }
        std::string problem;
        if (auto parsed = response->status == 207 ? parseMultistatus(response->body, &problem)
                                                  : std::nullopt) {
            return std::move(parsed->resources);
        }
        if (response->status != 207 || attempt == 2) {
            setError(error,
                     storeError(
                         DriveStoreErrorIO,
                         fmt::format("The server's answer about \"{}\" cannot be read "
                                     "({}{}).",
                                     path, response->status, problem.empty() ? "" : ": " + problem),
                         ""));
            return std::nullopt;
        }
    }
}

}  // namespace

// One change of an account: holds the account's write mutex, its lock on the server and its
// state mutex, with the records read up to the last.
class WebDAVStore::Writer {
public:
    Writer(WebDAVStore& store, Account& account)
        : store_(store), account_(account), writing_(account.writeMutex) {
        if (!claim()) {
            return;
        }
        state_ = std::unique_lock(account.mutex);
        ready_ = store.catchUpLocked(account, &error_);
    }
    ~Writer() {
        if (state_.owns_lock()) {
            state_.unlock();
        }
        if (claimed_) {
            call(*store_.client_, request("DELETE", account_.hidden("claim")), nullptr);
        }
        lock_.reset();  // UNLOCK, after the state and the claim are let go
    }

    bool ready(Error* error) const {
        if (!ready_) {
            setError(error, error_);
        }
        return ready_;
    }
    StoreIndex& index() { return account_.index; }
    std::uint64_t nextSeq() const { return account_.index.lastSeq() + 1; }

    /// Writes `record` (numbered next) and applies it. The record is written aside and moved
    /// into place without overwriting, so that it is whole or absent, and two writers never
    /// hold one number even if a lock expired under one of them.
    bool commit(StoreRecord record, Error* error) {
        record.seq = nextSeq();
        auto& client = *store_.client_;
        const std::string staged = account_.hidden("staging/" + randomName());
        auto put = request("PUT", staged, {"Content-Type: text/plain"});
        put.body = record.encode();
        const auto written = call(client, put, error);
        if (!written) {
            return false;
        }
        if (!succeeded(*written)) {
            return fail(error, store_.refusal(written->status, "record a change of", record.path));
        }
        const auto moved = call(
            client,
            request(
                "MOVE", staged,
                {"Destination: " + client.urlOf(account_.hidden(fmt::format("log/{}", record.seq))),
                 "Overwrite: F"}),
            error);
        if (!moved || !succeeded(*moved)) {
            call(client, request("DELETE", staged), nullptr);
            if (moved) {
                return fail(error, store_.refusal(moved->status == 412 ? 409 : moved->status,
                                                  "record a change of", record.path));
            }
            return false;
        }
        if (!account_.index.apply(record, record.seq, nullptr)) {
            return fail(error, storeError(DriveStoreErrorCorrupt,
                                          "The store's records could not take a change they "
                                          "accepted.",
                                          record.path));
        }
        return true;
    }

private:
    // Takes the account's WebDAV lock, then claims it by making the "claim" collection. The lock
    // expires with a device that dies; the claim makes it exclusive on servers that grant one
    // lock twice under concurrent requests (Apache's lock database does, now and then), since
    // making a collection succeeds once. A claim older than the lock's time-out was left by a
    // dead device and is taken away.
    bool claim() {
        auto& client = *store_.client_;
        const auto timeout = store_.options_.lockTimeout;
        const auto end = std::chrono::steady_clock::now() + timeout;
        std::mt19937 random(std::random_device{}());
        for (std::chrono::milliseconds pause(10);; pause = std::min(pause * 2, 500ms)) {
            std::string why;
            if (auto got = DavLock::acquire(client, account_.hidden("lock"), timeout,
                                            std::chrono::duration_cast<std::chrono::milliseconds>(
                                                end - std::chrono::steady_clock::now()),
                                            "qnicloud", &why)) {
                lock_.emplace(std::move(*got));
            } else {
                error_ = storeError(
                    store_.isReachable() ? DriveStoreErrorIO : DriveStoreErrorUnreachable,
                    fmt::format("Could not lock the account \"{}\" on the server: {}.",
                                account_.name, why),
                    "");
                return false;
            }
            const auto made = call(client, request("MKCOL", account_.hidden("claim")), &error_);
            if (!made) {
                return false;
            }
            if (succeeded(*made)) {
                claimed_ = true;
                return true;
            }
            const auto held = propfind(client, account_.hidden("claim"), 0, nullptr);
            const double now = Date::now().timeIntervalSince1970();
            if (held && !held->empty() && held->front().lastModified &&
                *held->front().lastModified < now - static_cast<double>(timeout.count())) {
                call(client, request("DELETE", account_.hidden("claim")), nullptr);
            }
            lock_.reset();
            if (std::chrono::steady_clock::now() + pause > end) {
                error_ = storeError(DriveStoreErrorIO,
                                    fmt::format("Could not lock the account \"{}\" on the server: "
                                                "another device holds it.",
                                                account_.name),
                                    "");
                return false;
            }
            std::this_thread::sleep_for(pause +
                                        std::chrono::milliseconds(random() % pause.count()));
        }
    }

    WebDAVStore& store_;
    Account& account_;
    std::lock_guard<std::mutex> writing_;
    std::optional<DavLock> lock_;
    bool claimed_ = false;
    std::unique_lock<std::mutex> state_;
    bool ready_ = false;
    Error error_;
};

bool WebDAVStore::create(const Options& options, Error* error) {
    DavClient client(clientOptions(options));
    const auto made = call(client, request("MKCOL", ""), error);
    if (!made) {
        return false;
    }
    auto marker = call(client, request("GET", kMarkerName), error);
    if (!marker) {
        return false;
    }
    if (marker->status == 200) {
        if (marker->body.starts_with(kMarkerHeading)) {
            return true;
        }
        return fail(
            error,
            storeError(DriveStoreErrorCorrupt,
                       fmt::format("{} holds something other than a store.", options.url), ""));
    }
    auto put = request("PUT", kMarkerName, {"Content-Type: text/plain", "If-None-Match: *"});
    put.body = std::string(kMarkerHeading) + randomName() + "\n";
    const auto written = call(client, put, error);
    if (!written) {
        return false;
    }
    if (!succeeded(*written) && written->status != 412) {  // 412: another device made it first
        return fail(error, storeError(DriveStoreErrorIO,
                                      fmt::format("The store at {} could not be made (the server "
                                                  "answered {}).",
                                                  options.url, written->status),
                                      ""));
    }
    return true;
}

std::shared_ptr<WebDAVStore> WebDAVStore::open(Options options) {
    return std::make_shared<WebDAVStore>(Private(), std::move(options));
}

WebDAVStore::WebDAVStore(Private, Options options)
    : options_(std::move(options)), client_(std::make_unique<DavClient>(clientOptions(options_))) {}

WebDAVStore::~WebDAVStore() = default;

Error WebDAVStore::refusal(int status, std::string_view what, std::string_view path) {
    switch (status) {
        case 412:
            return storeError(DriveStoreErrorRevisionMismatch,
                              fmt::format("\"{}\" was changed on the server meanwhile.", path),
                              path);
        case 507:
            return storeError(DriveStoreErrorIO,
                              fmt::format("The server has no room left to {} \"{}\" (507 "
                                          "Insufficient Storage).",
                                          what, path),
                              path);
        case 423:
            return storeError(
                DriveStoreErrorIO,
                fmt::format("Could not {} \"{}\": another client holds a lock on it.", what, path),
                path);
        default:
            return storeError(DriveStoreErrorIO,
                              fmt::format("Could not {} \"{}\": the server at {} answered {}.",
                                          what, path, options_.url, status),
                              path);
    }
}

bool WebDAVStore::isReachable() {
    const auto marker = client_->perform(request("GET", kMarkerName), nullptr, nullptr);
    return marker && marker->status == 200 && marker->body.starts_with(kMarkerHeading);
}

std::optional<std::vector<std::string>> WebDAVStore::accounts(Error* error) {
    const auto resources = propfind(*client_, "", 1, error);
    if (!resources) {
        return std::nullopt;
    }
    const std::string base = pathOfUrl(options_.url) + "/";
    std::vector<std::string> names;
    for (const auto& resource : *resources) {
        if (!resource.isCollection || !resource.path.starts_with(base)) {
            continue;
        }
        const std::string_view name = std::string_view(resource.path).substr(base.size());
        if (name.empty() || name.starts_with('.') || name.find('/') != std::string_view::npos) {
            continue;  // the store itself, and accounts being made
        }
        if (auto plain = percentUnescaped(name)) {
            names.push_back(std::move(*plain));
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool WebDAVStore::addAccount(std::string_view name, Error* error) {
    if (name.empty()) {
        return fail(error, storeError(DriveStoreErrorInvalidName, "An account needs a name.", ""));
    }
    if (!isReachable()) {
        return fail(
            error, storeError(DriveStoreErrorUnreachable,
                              fmt::format("The store at {} cannot be reached.", options_.url), ""));
    }
    // The log last: an account is there once it has one.
    const std::string folder = folderName(name);
    for (const std::string& collection :
         {folder, folder + "/.qnicloud", folder + "/.qnicloud/staging",
          folder + "/.qnicloud/log"}) {
        const auto made = call(*client_, request("MKCOL", collection), error);
        if (!made) {
            return false;
        }
        if (!succeeded(*made) && made->status != 405) {  // 405: it is there already
            return fail(error, refusal(made->status, "add the account", name));
        }
    }
    return true;
}

std::shared_ptr<WebDAVStore::Account> WebDAVStore::account(std::string_view name, Error* error) {
    {
        std::lock_guard lock(accountsMutex_);
        if (const auto found = accounts_.find(std::string(name)); found != accounts_.end()) {
            return found->second;
        }
    }
    auto made = std::make_shared<Account>();
    made->name = std::string(name);
    made->folder = folderName(name);
    made->hrefPrefix = pathOfUrl(options_.url) + "/" + made->folder + "/";
    const auto log = propfind(*client_, made->hidden("log"), 0, error);
    if (!log) {
        return nullptr;
    }
    if (log->empty()) {
        setError(error, storeError(DriveStoreErrorNotFound,
                                   fmt::format("The store holds no account \"{}\".", name), ""));
        return nullptr;
    }
    // Uploads whose uploaders died long ago.
    const double now = Date::now().timeIntervalSince1970();
    const double old = std::chrono::duration<double>(kAbandonedAfter).count();
    for (const auto& resource : propfind(*client_, made->hidden("staging"), 1, nullptr)
                                    .value_or(std::vector<DavResource>{})) {
        if (!resource.isCollection && resource.lastModified && *resource.lastModified < now - old) {
            const std::string staged(nameOf(resource.path));
            call(*client_, request("DELETE", made->hidden("staging/" + staged)), nullptr);
        }
    }
    std::lock_guard lock(accountsMutex_);
    return accounts_.try_emplace(made->name, made).first->second;
}

bool WebDAVStore::catchUpLocked(Account& account, Error* error) {
    for (;;) {
        const std::uint64_t seq = account.index.lastSeq() + 1;
        const auto response =
            call(*client_, request("GET", account.hidden(fmt::format("log/{}", seq))), error);
        if (!response) {
            return false;
        }
        if (response->status == 404) {
            return true;
        }
        if (response->status != 200) {
            return fail(error, refusal(response->status, "read the changes of", account.name));
        }
        std::string_view line = response->body;
        if (line.ends_with('\n')) {
            line.remove_suffix(1);
        }
        const auto record = StoreRecord::decode(line);
        if (!record || record->seq != seq || !account.index.apply(*record, seq, nullptr)) {
            return fail(error, storeError(DriveStoreErrorCorrupt,
                                          fmt::format("Change {} of account \"{}\" is damaged; "
                                                      "nothing was changed.",
                                                      seq, account.name),
                                          ""));
        }
    }
}

namespace {

// The items below the account's collection as the server has them: store path -> resource.
// Hidden collections are left out.
bool walkServer(DavClient& client, const std::string& folder, const std::string& hrefPrefix,
                std::map<std::string, Listed>* found, Error* error) {
    std::vector<std::string> pending{""};
    while (!pending.empty()) {
        const std::string storeFolder = std::move(pending.back());
        pending.pop_back();
        const auto resources =
            propfind(client, storeFolder.empty() ? folder : folder + "/" + storeFolder, 1, error);
        if (!resources) {
            return false;
        }
        for (const auto& resource : *resources) {
            if (!resource.path.starts_with(hrefPrefix)) {
                continue;
            }
            const std::string path = resource.path.substr(hrefPrefix.size());
            if (path.empty() || std::string(parentOf(path)) != storeFolder ||
                isHidden(nameOf(path)) || DriveStore::validatePath(path)) {
                continue;  // the folder itself, the store's own records, names it cannot hold
            }
            if (resource.isCollection) {
                pending.push_back(path);
            }
            found->emplace(path, listed(resource));
        }
    }
    return true;
}

// The record of an item another client put at `path`.
StoreRecord otherClientsItem(const std::string& path, const Listed& found) {
    StoreRecord record;
    record.kind = StoreRecord::Kind::Item;
    record.path = path;
    record.flag = found.isCollection;
    record.size = found.isCollection ? 0 : found.size;
    record.blob = found.tag;
    record.date =
        found.lastModified ? Date::fromTimeIntervalSince1970(*found.lastModified) : Date::now();
    record.device = kOtherClient;
    return record;
}

StoreRecord removal(std::string path) {
    StoreRecord record;
    record.kind = StoreRecord::Kind::Remove;
    record.path = std::move(path);
    return record;
}

// Whether the records describe `found` (or its absence, null) as the server has it.
bool agrees(const StoreIndex::Entry* entry, const Listed* found) {
    if (entry == nullptr || found == nullptr) {
        return entry == nullptr && found == nullptr;
    }
    return entry->isDirectory == found->isCollection &&
           (entry->isDirectory || entry->blob == found->tag);
}

// The records that bring `index` in line with what the server has.
std::vector<StoreRecord> differences(const StoreIndex& index,
                                     const std::map<std::string, Listed>& server) {
    std::vector<StoreRecord> records;
    std::vector<std::string> removed;
    const auto isRemoved = [&](std::string_view path) {
        return std::any_of(removed.begin(), removed.end(), [&](const std::string& gone) {
            return path.starts_with(gone) && path.size() > gone.size() && path[gone.size()] == '/';
        });
    };
    for (const auto& [path, entry] : index.entries()) {
        const auto there = server.find(path);
        if ((there == server.end() || there->second.isCollection != entry.isDirectory) &&
            !isRemoved(path)) {
            records.push_back(removal(path));
            removed.push_back(path);
        }
    }
    for (const auto& [path, found] : server) {
        const auto* entry = index.find(path);
        if (!agrees(entry, &found) || isRemoved(path)) {
            records.push_back(otherClientsItem(path, found));
        }
    }
    return records;
}

}  // namespace

bool WebDAVStore::walkIfDue(Account& account, Error* error) {
    std::map<std::string, Listed> server;
    {
        std::lock_guard lock(account.mutex);
        const auto now = std::chrono::steady_clock::now();
        if (account.lastWalk && now - *account.lastWalk < options_.walkInterval) {
            return true;
        }
        account.lastWalk = now;
    }
    if (!walkServer(*client_, account.folder, account.hrefPrefix, &server, error)) {
        return false;
    }
    {
        std::lock_guard lock(account.mutex);
        if (differences(account.index, server).empty()) {
            return true;
        }
    }
    // Looked at again under the lock: a device may have been between putting contents in
    // place and recording them.
    Writer writer(*this, account);
    if (!writer.ready(error)) {
        return false;
    }
    server.clear();
    if (!walkServer(*client_, account.folder, account.hrefPrefix, &server, error)) {
        return false;
    }
    for (auto& record : differences(writer.index(), server)) {
        if (record.kind == StoreRecord::Kind::Item) {
            record.revision = std::to_string(writer.nextSeq());
            if (!writer.index().parentIsFolder(record.path)) {
                continue;  // below a file: nothing a device can hold
            }
        }
        if (!writer.commit(std::move(record), error)) {
            return false;
        }
    }
    return true;
}

std::optional<DriveStore::Changes> WebDAVStore::changesSince(std::string_view name,
                                                             std::string_view token, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    {
        std::lock_guard lock(account->mutex);
        if (!catchUpLocked(*account, error)) {
            return std::nullopt;
        }
    }
    if (!walkIfDue(*account, error)) {
        return std::nullopt;
    }
    std::lock_guard lock(account->mutex);
    return changesAfter(account->index, token);
}

std::optional<DriveStore::Item> WebDAVStore::itemAtPath(std::string_view name,
                                                        std::string_view path, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    std::lock_guard lock(account->mutex);
    if (!catchUpLocked(*account, error)) {
        return std::nullopt;
    }
    if (const auto* entry = account->index.find(path)) {
        return account->index.item(std::string(path), *entry);
    }
    setError(error, noItem(path));
    return std::nullopt;
}

std::optional<std::string> WebDAVStore::read(std::string_view name, std::string_view path,
                                             std::string_view revision, std::uint64_t offset,
                                             std::size_t length, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    std::string tag;
    {
        std::lock_guard lock(account->mutex);
        if (!catchUpLocked(*account, error)) {
            return std::nullopt;
        }
        const auto* entry = account->index.find(path);
        if (entry == nullptr || entry->isDirectory || entry->revision != revision) {
            setError(error, noRevision(path, revision));
            return std::nullopt;
        }
        tag = entry->blob;
    }
    if (length == 0) {
        return std::string();
    }
    const auto response =
        call(*client_,
             request("GET", account->remote(path),
                     {fmt::format("Range: bytes={}-{}", offset, offset + length - 1)}),
             error);
    if (!response) {
        return std::nullopt;
    }
    if (response->status == 416) {
        return std::string();  // from beyond the end
    }
    const std::string found = tagOfHeader(*response);
    if (response->status == 404 || (succeeded(*response) && !found.empty() && found != tag)) {
        setError(error, noRevision(path, revision));
        return std::nullopt;
    }
    if (response->status == 206) {
        return response->body.substr(0, length);
    }
    if (response->status == 200) {  // the server sent everything
        return offset < response->body.size() ? response->body.substr(offset, length)
                                              : std::string();
    }
    setError(error, refusal(response->status, "read", path));
    return std::nullopt;
}

bool WebDAVStore::fetch(const std::string& remote, std::string_view path, std::string_view etag,
                        int fd, const Progress& progress, Error* error) {
    const off_t start = ::lseek(fd, 0, SEEK_CUR);
    std::uint64_t done = 0;
    std::chrono::milliseconds backOff(100);
    for (int attempt = 0;; ++attempt) {
        auto asked = request("GET", remote);
        if (done > 0) {
            asked.headers.push_back(fmt::format("Range: bytes={}-", done));
        }
        asked.downloadFd = fd;
        asked.repeatable = false;  // resumed here by range instead of sent again whole
        if (progress) {
            asked.progress = [&](std::uint64_t now, std::uint64_t total) {
                return progress(done + now, done + total);
            };
        }
        DavClient::Failure failure{};
        std::string why;
        const auto response = client_->perform(asked, &failure, &why);
        const off_t reached = ::lseek(fd, 0, SEEK_CUR);
        if (!response && failure == DavClient::Failure::Unreachable && attempt < options_.retries) {
            // The connection dropped: ask for the rest.
            done = reached > start ? static_cast<std::uint64_t>(reached - start) : 0;
            std::this_thread::sleep_for(backOff);
            backOff *= 2;
            continue;
        }
        if (!response) {
            return fail(error, failureError(*client_, failure, why, path));
        }
        if (response->status == 401) {
            return call(*client_, request("HEAD", remote), error).has_value();  // says it
        }
        const std::string found = tagOfHeader(*response);
        const bool replaced =
            response->status == 404 || (!found.empty() && !etag.empty() && found != etag);
        if (response->status == 200 && done > 0 && !replaced) {
            // The range was ignored and everything sent after what was there: start over.
            if (::ftruncate(fd, start) != 0 || ::lseek(fd, start, SEEK_SET) < 0) {
                return fail(error, storeError(DriveStoreErrorIO,
                                              fmt::format("Could not write the download of "
                                                          "\"{}\".",
                                                          path),
                                              path, errno));
            }
            done = 0;
            continue;
        }
        if (replaced || !succeeded(*response)) {
            [[maybe_unused]] const int ignored = ::ftruncate(fd, start);
            ::lseek(fd, start, SEEK_SET);
            if (replaced) {
                return fail(
                    error,
                    storeError(DriveStoreErrorNotFound,
                               fmt::format("\"{}\" was replaced while it was read.", path), path));
            }
            return fail(error, refusal(response->status, "download", path));
        }
        return true;
    }
}

bool WebDAVStore::download(std::string_view name, std::string_view path, std::string_view revision,
                           int fd, const Progress& progress, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    std::string tag;
    {
        std::lock_guard lock(account->mutex);
        if (!catchUpLocked(*account, error)) {
            return false;
        }
        const auto* entry = account->index.find(path);
        if (entry == nullptr || entry->isDirectory || entry->revision != revision) {
            return fail(error, noRevision(path, revision));
        }
        tag = entry->blob;
    }
    return fetch(account->remote(path), path, tag, fd, progress, error);
}

std::optional<std::string> WebDAVStore::stage(Account& account, int fd, std::string_view path,
                                              const Progress& progress, Error* error) {
    struct stat source {};
    const off_t start = ::lseek(fd, 0, SEEK_CUR);
    if (::fstat(fd, &source) != 0 || start < 0) {
        setError(error, storeError(DriveStoreErrorIO,
                                   fmt::format("Could not read what to upload to \"{}\".", path),
                                   path, errno));
        return std::nullopt;
    }
    const std::string staged = account.hidden("staging/" + randomName());
    auto put = request("PUT", staged, {"Content-Type: application/octet-stream"});
    put.uploadFd = fd;
    put.uploadOffset = static_cast<std::uint64_t>(start);
    put.uploadSize =
        source.st_size > start ? static_cast<std::uint64_t>(source.st_size - start) : 0;
    put.progress = progress;
    const auto response = call(*client_, put, error);
    if (response && succeeded(*response)) {
        return staged;
    }
    call(*client_, request("DELETE", staged), nullptr);  // what a cut upload left
    if (response) {
        setError(error, refusal(response->status, "upload", path));
    } else if (error != nullptr && error->code() == DriveStoreErrorCancelled) {
        setError(error, storeError(DriveStoreErrorCancelled,
                                   fmt::format("The upload of \"{}\" was stopped.", path), path));
    }
    return std::nullopt;
}

namespace {

// Makes the store's records agree with the server about `path` before a change is judged on
// them: what another client did there is recorded first.
template <typename Writer>
bool reconcile(Writer& writer, DavClient& client, const std::string& remote, std::string_view path,
               Error* error) {
    const auto resources = propfind(client, remote, 0, error);
    if (!resources) {
        return false;
    }
    const std::optional<Listed> found =
        resources->empty() ? std::nullopt : std::optional(listed(resources->front()));
    const auto* entry = writer.index().find(path);
    if (agrees(entry, found ? &*found : nullptr)) {
        return true;
    }
    if (entry != nullptr && (!found || found->isCollection != entry->isDirectory) &&
        !writer.commit(removal(std::string(path)), error)) {
        return false;
    }
    if (!found || !writer.index().parentIsFolder(path)) {
        return true;
    }
    auto record = otherClientsItem(std::string(path), *found);
    record.revision = std::to_string(writer.nextSeq());
    return writer.commit(std::move(record), error);
}

}  // namespace

std::optional<DriveStore::Item> WebDAVStore::upload(std::string_view name, std::string_view path,
                                                    int fd, const Condition& condition,
                                                    Date modificationDate, std::string_view device,
                                                    const Progress& progress, Error* error) {
    return commitContents(name, path, fd, &condition, modificationDate, device, progress, error);
}

std::optional<DriveStore::Item> WebDAVStore::commitContents(
    std::string_view name, std::string_view path, int fd, const Condition* condition,
    Date modificationDate, std::string_view device, const Progress& progress, Error* error) {
    auto invalid = invalidPath(path);
    if (invalid) {
        setError(error, std::move(*invalid));
        return std::nullopt;
    }
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    const auto staged = stage(*account, fd, path, progress, error);
    if (!staged) {
        return std::nullopt;
    }
    struct Discard {
        DavClient& client;
        const std::string& staged;
        bool keep = false;
        ~Discard() {
            if (!keep) {
                call(client, request("DELETE", staged), nullptr);
            }
        }
    } discard{*client_, *staged};
    Writer writer(*this, *account);
    if (!writer.ready(error) || !reconcile(writer, *client_, account->remote(path), path, error)) {
        return std::nullopt;
    }
    const auto* entry = writer.index().find(path);
    if (condition == nullptr && (entry == nullptr || entry->isDirectory)) {
        // A conflict version is kept beside a file.
        setError(error,
                 storeError(DriveStoreErrorNotFound,
                            fmt::format("There is no file \"{}\" in the store.", path), path));
        return std::nullopt;
    }
    if (condition != nullptr) {
        if (auto refusal = uploadRefusal(writer.index(), path, *condition)) {
            setError(error, std::move(*refusal));
            return std::nullopt;
        }
    }
    const std::uint64_t seq = writer.nextSeq();
    std::string target = account->remote(path);
    if (condition == nullptr) {
        const std::string versions = account->remote(versionsOf(path));
        for (const auto& folder : {std::string(parentOf(versions)), versions}) {
            const auto made = call(*client_, request("MKCOL", folder), error);
            if (!made) {
                return std::nullopt;
            }
        }
        target = fmt::format("{}/{}", versions, seq);
    }
    const auto moved =
        call(*client_,
             request("MOVE", *staged,
                     {"Destination: " + client_->urlOf(target),
                      entry == nullptr && condition != nullptr ? "Overwrite: F" : "Overwrite: T"}),
             error);
    if (!moved) {
        return std::nullopt;
    }
    if (!succeeded(*moved)) {
        setError(error, refusal(moved->status, "upload", path));
        return std::nullopt;
    }
    discard.keep = true;
    const auto placed = propfind(*client_, target, 0, error);
    if (!placed) {
        return std::nullopt;
    }
    StoreRecord record;
    record.kind = condition == nullptr ? StoreRecord::Kind::Version : StoreRecord::Kind::Item;
    record.path = std::string(path);
    record.size = placed->empty() ? 0 : placed->front().contentLength.value_or(0);
    if (condition == nullptr) {
        record.identifier = std::to_string(seq);
    } else {
        record.revision = std::to_string(seq);
        record.blob = placed->empty() ? std::string() : listed(placed->front()).tag;
    }
    record.date = modificationDate;
    record.device = std::string(device);
    if (!writer.commit(record, error)) {
        return std::nullopt;
    }
    return writer.index().item(record.path, *writer.index().find(path));
}

std::optional<DriveStore::Item> WebDAVStore::makeDirectory(std::string_view name,
                                                           std::string_view path,
                                                           const Condition& condition,
                                                           Date modificationDate,
                                                           std::string_view device, Error* error) {
    if (auto invalid = invalidPath(path)) {
        setError(error, std::move(*invalid));
        return std::nullopt;
    }
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error) || !reconcile(writer, *client_, account->remote(path), path, error)) {
        return std::nullopt;
    }
    std::optional<Item> existing;
    if (auto refusal = folderRefusal(writer.index(), path, condition, &existing)) {
        setError(error, std::move(*refusal));
        return std::nullopt;
    }
    if (existing) {
        return existing;
    }
    const auto made = call(*client_, request("MKCOL", account->remote(path)), error);
    if (!made) {
        return std::nullopt;
    }
    if (!succeeded(*made) && made->status != 405) {
        setError(error, refusal(made->status, "make the folder", path));
        return std::nullopt;
    }
    StoreRecord record;
    record.kind = StoreRecord::Kind::Item;
    record.path = std::string(path);
    record.flag = true;
    record.revision = std::to_string(writer.nextSeq());
    record.date = modificationDate;
    record.device = std::string(device);
    if (!writer.commit(record, error)) {
        if (made->status == 201) {
            // Unrecorded, it would be taken for another client's folder.
            call(*client_, request("DELETE", account->remote(path)), nullptr);
        }
        return std::nullopt;
    }
    return writer.index().item(record.path, *writer.index().find(path));
}

bool WebDAVStore::remove(std::string_view name, std::string_view path, const Condition& condition,
                         Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error) || !reconcile(writer, *client_, account->remote(path), path, error)) {
        return false;
    }
    if (auto refusal = removalRefusal(writer.index(), path, condition)) {
        return fail(error, std::move(*refusal));
    }
    const auto* entry = writer.index().find(path);
    std::vector<std::string> doomed{account->remote(path)};
    if (!entry->isDirectory) {
        doomed.push_back(account->remote(versionsOf(path)));
    }
    for (const auto& remote : doomed) {
        const auto removed = call(*client_, request("DELETE", remote), error);
        if (!removed) {
            return false;
        }
        if (!succeeded(*removed) && removed->status != 404) {
            return fail(error, refusal(removed->status, "remove", path));
        }
    }
    StoreRecord record;
    record.kind = StoreRecord::Kind::Remove;
    record.path = std::string(path);
    return writer.commit(record, error);
}

std::optional<DriveStore::Item> WebDAVStore::move(std::string_view name, std::string_view from,
                                                  std::string_view to, const Condition& condition,
                                                  Error* error) {
    if (auto invalid = invalidPath(to)) {
        setError(error, std::move(*invalid));
        return std::nullopt;
    }
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error) || !reconcile(writer, *client_, account->remote(from), from, error) ||
        !reconcile(writer, *client_, account->remote(to), to, error)) {
        return std::nullopt;
    }
    if (auto refusal = moveRefusal(writer.index(), from, to, condition)) {
        setError(error, std::move(*refusal));
        return std::nullopt;
    }
    const auto* entry = writer.index().find(from);
    const bool hasVersions = !entry->isDirectory && !entry->versions.empty();
    const auto moved =
        call(*client_,
             request("MOVE", account->remote(from),
                     {"Destination: " + client_->urlOf(account->remote(to)), "Overwrite: F"}),
             error);
    if (!moved) {
        return std::nullopt;
    }
    if (!succeeded(*moved)) {
        setError(error, moved->status == 412
                            ? storeError(DriveStoreErrorExists,
                                         fmt::format("Something is already at \"{}\" on the "
                                                     "server.",
                                                     to),
                                         to)
                            : refusal(moved->status, "move", from));
        return std::nullopt;
    }
    if (hasVersions) {
        // The versions go with their file; a failure here leaves them where a later move of
        // the file back finds them, which loses nothing.
        const std::string versions = account->remote(versionsOf(to));
        call(*client_, request("MKCOL", std::string(parentOf(versions))), nullptr);
        call(*client_,
             request("MOVE", account->remote(versionsOf(from)),
                     {"Destination: " + client_->urlOf(versions), "Overwrite: T"}),
             nullptr);
    }
    StoreRecord record;
    record.kind = StoreRecord::Kind::Move;
    record.path = std::string(from);
    record.target = std::string(to);
    if (!writer.commit(record, error)) {
        return std::nullopt;
    }
    return writer.index().item(record.target, *writer.index().find(to));
}

std::optional<DriveStore::Version> WebDAVStore::addConflictVersion(std::string_view name,
                                                                   std::string_view path, int fd,
                                                                   Date modificationDate,
                                                                   std::string_view device,
                                                                   Error* error) {
    if (!commitContents(name, path, fd, nullptr, modificationDate, device, nullptr, error)) {
        return std::nullopt;
    }
    const auto account = this->account(name, error);
    std::lock_guard lock(account->mutex);
    const auto* entry = account->index.find(path);
    if (entry == nullptr || entry->versions.empty()) {  // removed meanwhile by another thread
        setError(error, noItem(path));
        return std::nullopt;
    }
    const auto& version = entry->versions.back();
    return Version{version.identifier, version.size, version.date, version.device, false};
}

std::optional<std::vector<DriveStore::Version>> WebDAVStore::versions(std::string_view name,
                                                                      std::string_view path,
                                                                      Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    std::lock_guard lock(account->mutex);
    if (!catchUpLocked(*account, error)) {
        return std::nullopt;
    }
    return versionsIn(account->index, path, error);
}

bool WebDAVStore::downloadVersion(std::string_view name, std::string_view path,
                                  std::string_view identifier, int fd, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    {
        std::lock_guard lock(account->mutex);
        if (!catchUpLocked(*account, error)) {
            return false;
        }
        if (!hasVersion(account->index.find(path), identifier)) {
            return fail(error, noVersion(path, identifier));
        }
    }
    return fetch(fmt::format("{}/{}", account->remote(versionsOf(path)), identifier), path, "", fd,
                 nullptr, error);
}

bool WebDAVStore::setVersionResolved(std::string_view name, std::string_view path,
                                     std::string_view identifier, bool resolved, Error* error) {
    return changeVersion(name, path, identifier, true, resolved, error);
}

bool WebDAVStore::removeVersion(std::string_view name, std::string_view path,
                                std::string_view identifier, Error* error) {
    return changeVersion(name, path, identifier, false, false, error);
}

bool WebDAVStore::changeVersion(std::string_view name, std::string_view path,
                                std::string_view identifier, bool resolve, bool resolved,
                                Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error)) {
        return false;
    }
    if (!hasVersion(writer.index().find(path), identifier)) {
        return fail(error, noVersion(path, identifier));
    }
    if (!resolve) {
        const auto removed = call(
            *client_,
            request("DELETE", fmt::format("{}/{}", account->remote(versionsOf(path)), identifier)),
            error);
        if (!removed) {
            return false;
        }
    }
    StoreRecord record;
    record.kind = resolve ? StoreRecord::Kind::Resolve : StoreRecord::Kind::RemoveVersion;
    record.path = std::string(path);
    record.identifier = std::string(identifier);
    record.flag = resolved;
    return writer.commit(record, error);
}

}  // namespace qn
