#pragma once
// Two flags of an item that desktops honour, kept in the files the desktops read:
//
// - kIsInvisible: the item's name is a line of the ".hidden" file in its
//   folder (file managers leave such items out, as they do dot files).
// - kHasCustomIcon (folders): the folder's ".directory" file has an "Icon="
//   entry in its [Desktop Entry] group. Turning the flag on points that entry
//   at the folder's own icon image, "./.VolumeIcon.png" (written at a volume's
//   root when it is mounted) or "./.folder.png", relative to the folder so
//   that it stays right wherever the folder or volume is mounted.
//
// Both files are rewritten atomically, with the rest of their lines kept.
#include <cstdint>
#include <string>

namespace qv {

inline constexpr uint16_t kHasCustomIcon = 0x400;
inline constexpr uint16_t kIsInvisible = 0x4000;

// The image a custom folder icon is taken from: at a volume's root, and elsewhere.
inline constexpr const char* QVVolumeIconFileName = ".VolumeIcon.png";
inline constexpr const char* QVFolderIconFileName = ".folder.png";

// The flags the item has now (kHasCustomIcon | kIsInvisible, or neither).
uint16_t QVCatalogFlags(const std::string& path);

// Turns the flags in `flag` on, or off when all of them are on (a flag that is
// off stays off). True when the item ends with the flags as asked.
bool modifyCatalogFlag(uint16_t flag, const std::string& path, bool enable);

// Visibility of the item: kIsInvisible off when visible. (Named apart from the
// custom-icon variant, as both take a path and a flag.)
bool modifyCatologInfoAtPathIsVisible(const std::string& path, bool isVisible);
// The custom-icon flag of a folder.
bool modifyCatologInfoAtPathHasCustomIcon(const std::string& path, bool hasCustomIcon);
bool modifyCatologInfoAtURL(const std::string& path, bool hasCustomIcon);

// Whether the folder has the custom-icon flag.
bool folderHasCustomIcon(const std::string& path);

} // namespace qv
