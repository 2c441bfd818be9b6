#pragma once

#include <string>

#include "qn/Date.h"
#include "qn/URL.h"

namespace qn {

/// What a ubiquity service knows of one stored version of an item other than the item itself
/// (a conflict version, or an older version). A value; any thread.
struct FileVersionRecord {
    std::string identifier;  // unique among the item's versions
    URL url;                 // where the version's contents can be read
    Date modificationDate;
    std::string localizedNameOfSavingComputer;
    bool isConflict = false;
    bool isResolved = false;
};

}  // namespace qn
