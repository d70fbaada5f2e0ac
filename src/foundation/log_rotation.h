// Keeping the log's file below its limit: a file that is too large goes into a numbered archive and is emptied.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/log.h"
#include "foundation/log_file.h"

namespace logging {

/// Registry key of what all services of the product share: the log's folder and its limits.
inline constexpr char CommonRegistryKey[] = "SOFTWARE\\Kelvo\\Kelvo Vault";

/// The settings, from AgentMaxLogSize (DWORD or QWORD, bytes) and AgentMaxLogCount (DWORD). Both defaults stand when
/// one of the two is missing or has another type; a count above 1000 or below 0 is 1000. Never throws.
rotation_settings_t ReadRotationSettings();

/// The archive of a log: its extension replaced by ".log.gz", with ".number" before it for all but number 0.
std::string ArchivePath(const std::string& logPath, std::uint32_t number);

/// Makes room under the plain name: each archive moves up by one number and those that the limit leaves no room for
/// are removed. Throws "Cannot age file. File path: [%1]. Extension: [%2]. Ages limit: [%3].".
void AgeArchives(const std::string& logPath, std::uint32_t limit);

/// Compresses and empties the receiver's file when it has reached the limit. Throws what stopped it; the log's own
/// content is never lost. Called under the log's lock.
void CheckLogSize(receiver::log_file_t& receiver, const rotation_settings_t& settings);

}  // namespace logging
