#pragma once
// Where the system keeps its files. Everything else asks here and builds no
// such path by itself. Paths follow the XDG base directories, so a test (or a
// user) redirects them with XDG_DATA_HOME, XDG_CONFIG_HOME and the user dirs.
#include <string>

namespace qv {

// The bundle's identifier and name: the names of the data directories of
// this version and of the previous major version.
inline constexpr const char* QVBundleIdentifier = "com.marrowfen.Quillvane3";
inline constexpr const char* QVBundleName = "Quillvane";

// Directories, looked up once and kept for the life of the process.
std::string desktopURL();
std::string documentsURL();
std::string libraryURL();
std::string appSupURL();
std::string ourAppSupURL();  // created on first use, without intermediates
std::string oldAppSupURL();  // never created here
std::string defaultDiskImageLocationURL();
std::string fakeImagesNoteURL();

// Keys of quillvaneURL.
enum QVLocationKey : long {
    QVLocationDatabase = 0,
    QVLocationBackups = 1,
    QVLocationOldDatabase = 2,
    QVLocationAutolock = 3,
    QVLocationOldAutolock = 4,
};
// 0 database3, 1 Backups, 2 the old database3, 3 alock, 4 the old alock.
// Any other key is a programming error: logged, then std::invalid_argument.
std::string quillvaneURL(long key);

// Forgets the cached directories, so that they are looked up again from the
// environment (tests that redirect XDG variables between cases).
void QVLocationsForgetCache();

} // namespace qv
