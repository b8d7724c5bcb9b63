// qv import: an encrypted sparse bundle made elsewhere becomes a protected
// folder where it lies, with its own password, through the import screen's
// logic. qv encrypt hands a sparse bundle here too.
#include <cstdio>
#include <filesystem>

#include "app/FolderList.h"
#include "app/ImportSparsebundle.h"
#include "cli/Cli.h"
#include "cli/FolderSession.h"
#include "cli/PasswordInput.h"
#include "disk/URLHelpers.h"
#include "toolkit/PathText.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace qv::cli {

namespace {

// Whether a folder of the set already lives in the image at `image`.
bool imageInUse(const std::string& image) {
    for (const auto& face : FolderList::singleton().faces()) {
        const QVRecordRef folder = FolderFaceRef{face}.folder().as<QVRecord>();
        const std::string url = DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath();
        if (QVTrimmedPath(url) == image) return true;
    }
    return false;
}

} // namespace

std::string defaultImportMountPoint(const std::string& image) {
    const std::filesystem::path path(image);
    return (path.parent_path() / path.stem()).string();
}

int importSparseBundle(FolderSession& session, const std::string& imageArg, const std::string& folderArg) {
    const std::string image = FolderSession::absolutePath(imageArg);
    const std::string folder = FolderSession::absolutePath(folderArg);
    if (!isSparseBundle(image)) {
        complain("'" + image + "' is not a sparse bundle");
        return ExitRefused;
    }
    if (imageInUse(image)) {
        complain("'" + image + "' is the image of a folder of this Folder Set already");
        return ExitRefused;
    }
    ImportSparsebundle& screen = ImportSparsebundle::folderWithURL(image);
    QVError error;
    if (!screen.chooseMountPoint(folder, &error)) {
        if (!error.empty()) complain(error.description);
        return ExitRefused;
    }

    PasswordInput input;
    bool mismatch = false;
    std::optional<std::string> password =
        input.readNew("Password of the disk image: ", "Password of the disk image again: ", &mismatch);
    if (!password) {
        screen.cancel();
        complain(mismatch ? "the two passwords differ" : "no password given for the disk image");
        return mismatch ? ExitRefused : ExitUsage;
    }
    QVWipeOnExit<std::string> wipe(*password);
    screen.setPassword1(*password);
    screen.setPassword2(*password);
    if (!screen.okEnabled()) {
        screen.cancel();
        complain("the disk image's password is empty");
        return ExitRefused;
    }
    QVRecordRef prepared;
    screen.setCallback([&](const QVRecordRef& face) { prepared = face; });
    if (!screen.ok()) {
        complain("'" + image + "': " + screen.infoText());
        screen.cancel();
        return ExitWrongPassword;
    }
    FolderList& list = FolderList::singleton();
    if (!list.importSparseBundle(prepared)) {
        complain("couldn't start importing '" + image + "'");
        return ExitFailure;
    }
    // A folder nobody else knows yet: claimed right after it joined the list.
    session.claim(FolderFaceRef{list.faces().back()}.folder().as<QVRecord>());
    session.waitForTasks();
    const QVRecordRef face = session.faceForPath(folder);
    if (!face || !FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.encrypted().toBool()) {
        complain("'" + image + "' was not imported");
        return ExitFailure;
    }
    std::printf("imported\t%s\n", folder.c_str());
    return ExitOK;
}

int cmdImport(const std::vector<std::string>& args) {
    if (args.size() != 2) {
        complain("usage: qv import <image.sparsebundle> <empty folder>");
        return ExitUsage;
    }
    FolderSession session;
    if (int code = session.open(); code != ExitOK) return code;
    return importSparseBundle(session, args[0], args[1]);
}

} // namespace qv::cli
