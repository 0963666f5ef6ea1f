// Every command code the console sends, defined once. The agent's command
// table (src/session/command_table.cc) gives each its log text, the record
// a refusal takes and its handler.
#pragma once

#include <cstdint>

namespace varlo {

inline constexpr std::uint16_t kConfigurationCommand = 1;
inline constexpr std::uint16_t kNetworkingCommand = 2;
inline constexpr std::uint16_t kProcessesCommand = 3;
inline constexpr std::uint16_t kVolumesCommand = 4;
inline constexpr std::uint16_t kScsiCommand = 5;
inline constexpr std::uint16_t kApplicationsCommand = 6;
inline constexpr std::uint16_t kControlPanelsCommand = 7;
inline constexpr std::uint16_t kExtensionsCommand = 8;
inline constexpr std::uint16_t kFontsCommand = 9;
inline constexpr std::uint16_t kStartupItemsCommand = 10;
inline constexpr std::uint16_t kShutdownCommand = 12;
inline constexpr std::uint16_t kRebootCommand = 13;
inline constexpr std::uint16_t kSyncClockCommand = 14;
inline constexpr std::uint16_t kQuitProcessCommand = 15;
inline constexpr std::uint16_t kLaunchAppCommand = 16;
inline constexpr std::uint16_t kChangePasswordCommand = 17;
inline constexpr std::uint16_t kSendFileCommand = 18;
inline constexpr std::uint16_t kSendFolderCommand = 19;
inline constexpr std::uint16_t kSendMessageCommand = 20;
inline constexpr std::uint16_t kStoreNotesCommand = 21;
inline constexpr std::uint16_t kRetrieveNotesCommand = 22;
inline constexpr std::uint16_t kFileExtensionCommand = 23;
inline constexpr std::uint16_t kThroughputCommand = 24;
inline constexpr std::uint16_t kLocalVolumesCommand = 25;
inline constexpr std::uint16_t kHardDiskCommand = 26;
inline constexpr std::uint16_t kPciCommand = 27;
inline constexpr std::uint16_t kIpAddressCommand = 28;
inline constexpr std::uint16_t kBackupProfilerCommand = 30;
inline constexpr std::uint16_t kAssignDbmsKeyCommand = 33;
// Refused with a manage record like its neighbours, but served by no agent.
inline constexpr std::uint16_t kUnservedManageCommand = 34;

}  // namespace varlo
