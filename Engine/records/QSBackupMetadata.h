// Metadata carried in extended attributes of a backup folder (never through
// a symbolic link at the path).  Failures show only as a false or empty
// result; nothing is logged.
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

// Stores `attributes` (as a binary property list) in
// "com.qsc.backup.attributes.v1"; fails when the attribute already exists.
bool CreateBackupAttributesMetadata(const std::string& path, const platform::Dictionary& attributes);

// The dictionary stored by CreateBackupAttributesMetadata; empty when the
// attribute is missing, empty or not a dictionary.
platform::Dictionary GetBakcupAttributesMetadata(const std::string& path);

// Generates a time-based UUID and stores its 16 bytes in "com.qsc.backup.uid"
// (failing when the attribute exists).  On success the standard text goes to
// `uid`; on failure `uid` is left untouched.
bool CreateUIDMetadata(const std::string& path, std::string* uid);

// The standard text of the stored UUID; nothing unless exactly 16 bytes are stored.
std::optional<std::string> GetUIDMetadata(const std::string& path);
