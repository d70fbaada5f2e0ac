// The commands of the management interface. Each is a function without state: it fetches the running service from its
// context, and throws when it fails; what it has written then is not delivered. Any thread.
#pragma once

class CInputArguments;
class COutputArguments;

namespace commands {

/// @name The service
/// @{
/// Answers "locks": an item for each connected backup mount.
void EnumLocks(const CInputArguments& input, COutputArguments& output);
void GetLogFolder(const CInputArguments& input, COutputArguments& output);
void TestCompatible(const CInputArguments& input, COutputArguments& output);
/// The settings as they are stored, not as the service uses them.
void GetParams(const CInputArguments& input, COutputArguments& output);
/// Stores settings for the next start. Shares and folders cannot be changed until then.
void Reconfigure(const CInputArguments& input, COutputArguments& output);
/// @}

/// @name Shares and their folders
/// @{
void CreateShare(const CInputArguments& input, COutputArguments& output);
void LookupShare(const CInputArguments& input, COutputArguments& output);
void GetShareConfig(const CInputArguments& input, COutputArguments& output);
void DeleteShare(const CInputArguments& input, COutputArguments& output);
void CreateFolder(const CInputArguments& input, COutputArguments& output);
void DeleteFolder(const CInputArguments& input, COutputArguments& output);
/// @}

/// @name Backup mounts
/// @{
void MountBackup(const CInputArguments& input, COutputArguments& output);
void DismountBackup(const CInputArguments& input, COutputArguments& output);
/// @}

/// @name Allowed hosts
/// @{
void AddEsxHostAddr(const CInputArguments& input, COutputArguments& output);
void DeleteEsxHostAddr(const CInputArguments& input, COutputArguments& output);
/// @}

/// @name The reported size of the datastore
/// @{
void SetNfsDatastoreSize(const CInputArguments& input, COutputArguments& output);
void GetNfsDatastoreSize(const CInputArguments& input, COutputArguments& output);
void ResetNfsDatastoreSize(const CInputArguments& input, COutputArguments& output);
/// @}

}  // namespace commands
