#pragma once
// Where a Storage keeps its images and temporary directories, and the image
// locations of a folder. Nothing else builds these paths.
#include <string>

#include "vault/QVRecord.h"

namespace qv {

// The default Storage: name "Default", url the "Data" directory of our data
// directory (defaultDiskImageLocationURL). Every call gives the same shared record
// for as long as that location stays where it is; when the location moves (a test
// that gives itself a new home), the next call makes a new one. The "Data"
// directory is made (0700) along with the record.
QVRecordRef QVStorageDefault();

// A new Storage with these two fields.
QVRecordRef QVStorageMake(const std::string& name, const URLValue& url);

// The directory "Temp" of the storage, made (mode 0700, with intermediates) when it
// isn't there. "" when the storage has no location or the directory can't be made
// or isn't a directory; logged as "couldn't create tmp directory at: '<path>'.
// Reason: <why>".
std::string QVStorageTempURL(const QVRecordRef& storage);

// A new empty directory (mode 0700) in the storage's Temp directory, named by 10
// random characters with codes 65 to 122 (letters and [\]^_`). The name is drawn
// again until it names nothing, not even a dangling link, and the directory is
// made with mkdir, which refuses an existing path: so the answer never is a path
// that existed before. "" on failure, logged as "couldn't create mount directory
// at: '<path>'. Reason: <why>".
std::string QVStorageTempMountURL(const QVRecordRef& storage);

// A new DiskInfo whose url is "<folder.uuid>.sparsebundle" in the default
// Storage's directory, whatever storage the folder names. Null (logged) for a
// null folder or one without a uuid.
QVRecordRef QVDiskInfoDefaultForFolder(const QVRecordRef& folder);
inline QVRecordRef QVDiskInfoForFolder(const QVRecordRef& folder) { return QVDiskInfoDefaultForFolder(folder); }

// A new DiskInfo whose url is "<folder.uuid>.sparsebundle" in the Temp directory of
// the folder's own storage. Null when that directory can't be had (logged by
// QVStorageTempURL), or for a null folder or one without a uuid.
QVRecordRef QVDiskInfoTempForFolder(const QVRecordRef& folder);

} // namespace qv
