#include "deniability/FakeImageNote.h"

#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "vault/Locations.h"
#include "vault/PropertyList.h"

namespace qv {

void FakeImageNote::serializingQueue(const std::function<void()>& work) {
    static std::mutex queue;
    std::lock_guard lock(queue);
    work();
}

std::vector<std::string> FakeImageNote::readNote() {
    std::vector<std::string> paths;
    auto bytes = QVReadFile(fakeImagesNoteURL(), nullptr);
    if (!bytes) return paths;
    auto plist = QVPropertyListFromData(*bytes, nullptr);
    ArrayRef list = plist ? plist->toArray() : nullptr;
    if (!list) return paths;
    for (const Value& item : *list)
        if (item.isString()) paths.push_back(item.toString());
    return paths;
}

bool FakeImageNote::writeNote(const std::vector<std::string>& paths) {
    Array list;
    for (const auto& path : paths) list.emplace_back(path);
    auto xml = QVPropertyListToXML(Value::newArray(std::move(list)));
    QVError error;
    if (!xml || !QVWriteFileAtomically(fakeImagesNoteURL(), *xml, &error)) {
        QV_LOG_ERROR("couldn't write the note of images in the making: " + error.description);
        return false;
    }
    return true;
}

void FakeImageNote::deleteNote() { ::unlink(fakeImagesNoteURL().c_str()); }

void FakeImageNote::addImageToNote(const std::string& imagePath) {
    serializingQueue([&] {
        auto paths = readNote();
        paths.push_back(imagePath);
        writeNote(paths);
    });
}

void FakeImageNote::removeImageFromNote(const std::string& imagePath) {
    serializingQueue([&] {
        auto paths = readNote();
        paths.erase(std::remove(paths.begin(), paths.end(), imagePath), paths.end());
        writeNote(paths);
    });
}

} // namespace qv
