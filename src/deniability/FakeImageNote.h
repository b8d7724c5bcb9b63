#pragma once
// The note of fake images under construction: the file "fdinote" in our data
// directory, a property list holding an array of image paths. An image is put
// in it before it exists and stays until the whole upgrade has ended, so that
// a run that dies midway leaves a list of what to clean away. A missing or
// unreadable note reads as an empty list; every change rewrites it whole,
// atomically.
#include <functional>
#include <string>
#include <vector>

namespace qv {

class FakeImageNote {
public:
    FakeImageNote() = delete;

    // Runs `work` alone among the note's read-change-write cycles (the note's
    // serial queue: tasks running side by side change it through here).
    static void serializingQueue(const std::function<void()>& work);

    // readNote and writeNote don't serialise: call them inside serializingQueue,
    // or while no task that changes the note runs.
    static std::vector<std::string> readNote();
    static bool writeNote(const std::vector<std::string>& paths);
    // Removes the file; a failure is ignored.
    static void deleteNote();

    // Appends the path (read, change, write on the serial queue).
    static void addImageToNote(const std::string& imagePath);
    // Removes every occurrence of the path, the same way.
    static void removeImageFromNote(const std::string& imagePath);
};

} // namespace qv
