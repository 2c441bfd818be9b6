#pragma once

// Where things live on this machine: the application's identity and default container
// identifier, the local directory of a cloud container, and the application support directory.
// Everything is computed from settings and the environment; nothing is created on disk and no
// service is asked. The drive directory follows the per-user data conventions of Linux desktops
// ($XDG_DATA_HOME, by default ~/.local/share):
//
//   <data home>/QNiCloud/Mobile Documents/                the drive directory
//   <data home>/QNiCloud/Mobile Documents/iCloud~com~example~App/   one container
//   <data home>/<application identity>/                   the application support directory
//
// The host sets the identity once at start-up; tests redirect the directories. Any thread: the
// setters may race with readers, who see either the old or the new value.

#include <string>
#include <string_view>

#include "qn/URL.h"

/// The application's default container identifier: "iCloud." + qn::applicationIdentifier().
std::string QNiCloudContainerIdentifier();

/// The local directory URL of the container `identifier`: the drive directory + the identifier
/// with every "." replaced by "~" ("iCloud.com.example.App" -> ".../iCloud~com~example~App/"), as
/// the original platform names container folders. The drive directory is its parent. The empty
/// URL for an empty identifier or one containing "/".
qn::URL QNiCloudContainerURLFromIdentifier(std::string_view identifier);

/// The application support directory with `name` appended as a path component (see
/// qn::stringByAppendingPathComponent); the directory itself for an empty `name`.
std::string QNApplicationSupportDirectoryAdd(std::string_view name);

namespace qn {

/// Sets the application's identity (reverse-DNS, e.g. "com.example.App"). An empty string
/// restores the default: "local." + the executable's file name with every character other than
/// letters, digits and "-" replaced by "-" (so "/usr/bin/my.app" -> "local.my-app"), or
/// "local.application" when the executable cannot be determined.
void setApplicationIdentifier(std::string identifier);
/// The identity in force.
std::string applicationIdentifier();

/// Overrides the drive directory (an absolute path); an empty string restores the default,
/// <data home>/QNiCloud/Mobile Documents.
void setUbiquityDriveDirectory(std::string path);
/// The drive directory in force, without a trailing separator.
std::string ubiquityDriveDirectory();

/// Overrides the application support directory; an empty string restores the default,
/// <data home>/<application identity>.
void setApplicationSupportDirectory(std::string path);
/// The application support directory in force, without a trailing separator.
std::string applicationSupportDirectory();

/// The per-user data directory: $XDG_DATA_HOME when it is set to an absolute path, otherwise
/// $HOME/.local/share, with the home directory taken from the user database when $HOME is unset
/// or empty ("/" as a last resort). Read on every call, so changes to the environment apply.
std::string userDataDirectory();

}  // namespace qn
