#pragma once
// The database upgrade on the command line: `qv upgrade`, and the upgrade that
// `qv set create` runs right after the first set of a new database is saved.
// The plan of fake images is the setup page's (deniability/PDAssistantSetup.h),
// the run the assistant's (deniability/PDAssistant.h), shown on the terminal.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "deniability/PDAssistantSetup.h"
#include "vault/DBMaster.h"

namespace qv::cli {

struct FakeSpaceOptions {
    std::optional<uint64_t> space; // bytes for fake images; none: the page's initial value
    int plan = 0;                  // the menu item: 0 random, 1 small, 2 large
    bool yes = false;              // no space at all needs no question
};

// Takes --fake-space SIZE, --fake-plan random|small|large and --yes out of
// `args`; false after a complaint about a bad one. Other words are left.
bool parseFakeSpaceOptions(std::vector<std::string>& args, FakeSpaceOptions* options);

// "2G", "600M", "512K", "0" or a number of bytes; binary units.
std::optional<uint64_t> parseSize(const std::string& text);

// The plan of fake images for these options, as the setup page draws it, and
// whether it may go ahead: no space at all is asked about on a terminal and
// needs --yes otherwise. False after a complaint.
bool planFakeImages(const FakeSpaceOptions& options, PDAssistantSetup* setup);

// Prints the plan, runs the upgrade with its progress on standard error and
// Ctrl-C as cancel. An exit code (after a complaint on failure).
int runDatabaseUpgrade(const DBMasterRef& master, const PDAssistantSetup& plan, bool newDatabase);

} // namespace qv::cli
