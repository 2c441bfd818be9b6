#pragma once

// Typed access to the attributes of a metadata-query result, so that no other part of the library
// spells an attribute key or decides what a missing attribute means.

#include <optional>
#include <string>

#include "qn/Date.h"
#include "qn/Dictionary.h"
#include "qn/MetadataItem.h"
#include "qn/URL.h"
#include "qn/Value.h"

/// A read-only view of one `qn::MetadataItem` with an accessor per attribute the library uses:
///
///     const QNiCloudExtensions item(*result);
///     if (item.isDownloaded()) { ... }
///
/// The view holds a reference: the metadata item must outlive it (temporaries are refused). It
/// is cheap to make, so make one where it is needed rather than keeping it.
///
/// What "absent" means: an attribute with no value, a null value, or a value of a kind the
/// accessor cannot read (a string where a date belongs) is absent. Optional accessors then answer
/// nothing; booleans answer false and percentages 0.0. A boolean attribute is true when its value
/// is a non-zero number.
///
/// Pure reads of an immutable record: any thread.
class QNiCloudExtensions {
public:
    explicit QNiCloudExtensions(const qn::MetadataItem& item) noexcept : item_(item) {}
    explicit QNiCloudExtensions(qn::MetadataItem&&) = delete;

    /// Every attribute the item lists that has a value, under its own name. A listed attribute
    /// without a value (or with a null one) is left out rather than stored as null, so that a
    /// value found in the result is always a real value of the item. Offered to the host; the
    /// library does not use it.
    qn::Dictionary attributesDictionary() const;

    /// The file-system name. Offered to the host.
    std::optional<std::string> fsName() const;
    /// The name to show to the user. Offered to the host.
    std::optional<std::string> displayName() const;
    std::optional<qn::URL> URL() const;
    /// The item's path in Unicode canonical composed form (NFC) and otherwise exactly as
    /// reported, so that it compares equal to the paths the library builds itself: the cache is
    /// looked up by it. Not standardised (a trailing "/" stays).
    std::optional<std::string> path() const;
    /// The size attribute as reported, not converted: any number kind.
    std::optional<qn::Value> fsSize() const;
    /// Offered to the host.
    std::optional<qn::Date> fsCreationDate() const;
    std::optional<qn::Date> fsContentChangeDate() const;

    /// Offered to the host.
    bool isUbiquitous() const;
    bool hasUnresolvedConflicts() const;
    /// Decided by the downloading status when the item reports one: downloaded exactly when the
    /// status is `NSURLUbiquitousItemDownloadingStatusCurrent` (a downloaded but outdated copy
    /// is not). Only an item without a status falls back to the older boolean
    /// `NSMetadataUbiquitousItemIsDownloadedKey`.
    bool isDownloaded() const;
    bool isDownloading() const;
    bool isUploaded() const;
    bool isUploading() const;
    /// 0.0 to 100.0.
    double percentDownloaded() const;
    double percentUploaded() const;
    /// Always false, without looking at the item: callers that branch on it take the file
    /// branch for every query result, directories included, and rely on doing so.
    bool isDirectory() const noexcept { return false; }

private:
    const qn::Value* valueFor(const char* name) const;
    bool boolFor(const char* name) const;
    double doubleFor(const char* name) const;
    std::optional<std::string> stringFor(const char* name) const;
    std::optional<qn::Date> dateFor(const char* name) const;

    const qn::MetadataItem& item_;
};
