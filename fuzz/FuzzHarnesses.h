#pragma once
// What each fuzz target does with one input. The libFuzzer entry points call
// these, and so does the unit test that feeds the inputs kept from past crashes
// (tests/fixtures/fuzz/<target>/), so a fixed crash stays fixed in every build.
// A harness returns 0; an input that breaks a promise the code makes (beyond
// not crashing) aborts.
#include <cstddef>
#include <cstdint>

namespace qv::fuzz {

// Keyed archives (the master file, Folder Sets): read, written back, read again.
int keyedArchive(const uint8_t* data, size_t size);
// Plain property lists (diskinfo, settings, attachment records) and Info.plist.
int propertyList(const uint8_t* data, size_t size);
// The scrypt container: header checks, parameter limits, both MACs.
int scryptContainer(const uint8_t* data, size_t size);
// An image's token: its checks without the password, then the unwrapping.
int imageToken(const uint8_t* data, size_t size);

} // namespace qv::fuzz
