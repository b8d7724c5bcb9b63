// Applications as desktop entries: finding an entry by its id, what makes a
// file no application, names in the user's language, launching, and telling
// the running instances of an application from other processes.
#include "automation/RunningApplications.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "automation/AutomationTestSupport.h"

using namespace qv;
using namespace qv::test;

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace

TEST(RunningApplications, EntriesAreFoundByIdWithTheUsersOwnDirectoryFirst) {
    ApplicationsSandbox apps;
    const std::string user = apps.writeApplication("editor.desktop", "User Editor", "/bin/true");
    apps.writeEntry("editor.desktop", "[Desktop Entry]\nType=Application\nName=System Editor\nExec=/bin/true\n",
                    apps.systemApplicationsDir());
    const std::string nested = apps.writeEntry(
        "vendor/viewer.desktop", "[Desktop Entry]\nType=Application\nName=Viewer\nExec=/bin/true\n",
        apps.systemApplicationsDir());

    EXPECT_EQ(QVDesktopEntryPathForId("editor.desktop"), user);
    EXPECT_EQ(QVDesktopEntryPathForId("vendor-viewer.desktop"), nested) << "a dash stands for a subdirectory";
    auto editor = QVDesktopApplicationWithId("editor.desktop");
    ASSERT_TRUE(editor);
    EXPECT_EQ(editor->name, "User Editor");
    EXPECT_EQ(editor->program, "/usr/bin/true");
    for (const char* bad : {"", ".desktop", "editor", "vendor/viewer.desktop", "missing.desktop"})
        EXPECT_EQ(QVDesktopEntryPathForId(bad), "") << bad;

    // Every id once, the user's entry winning; a Hidden entry masks the system's.
    apps.writeEntry("vendor/viewer.desktop", "[Desktop Entry]\nType=Application\nName=Viewer\nExec=/bin/true\nHidden=true\n");
    std::vector<std::string> seen;
    for (const auto& app : QVDesktopApplications()) seen.push_back(app.desktopFileId + "=" + app.name);
    EXPECT_EQ(seen, (std::vector<std::string>{"editor.desktop=User Editor"}));
}

TEST(RunningApplications, OnlyInstalledApplicationEntriesCount) {
    ApplicationsSandbox apps;
    const std::string link = apps.writeEntry("link.desktop", "[Desktop Entry]\nType=Link\nName=Web\nURL=https://example.org\n");
    const std::string missing =
        apps.writeApplication("gone.desktop", "Gone", "/bin/true", "TryExec=/nonexistent/program\n");
    const std::string hidden = apps.writeApplication("hidden.desktop", "Hidden", "/bin/true", "Hidden=true\n");
    const std::string garbage = apps.writeEntry("garbage.desktop", std::string("\x00\xff not a key file", 18));
    for (const auto& path : {link, missing, hidden, garbage, apps.path("nowhere.desktop")})
        EXPECT_FALSE(QVDesktopApplicationAtPath(path)) << path;
    QVError error;
    EXPECT_FALSE(QVLaunchApplication(link, &error));
    EXPECT_EQ(error.code, QVErrorFailed);

    // Nor one whose program isn't installed: it can neither start nor run.
    apps.writeApplication("ghost.desktop", "Ghost", "qv-no-such-program --x");
    EXPECT_FALSE(QVDesktopApplicationWithId("ghost.desktop"));
    EXPECT_TRUE(QVRunningApplication::runningApplicationsWithBundleIdentifier("ghost.desktop").empty());
}

TEST(RunningApplications, NamesFollowTheUsersLanguage) {
    ApplicationsSandbox apps;
    apps.writeApplication("words.desktop", "Words", "/bin/true", "Name[de]=Wörter\nName[fr_CA]=Mots\n");
    {
        ScopedVariable language("LANGUAGE", std::string("de"));
        EXPECT_EQ(QVDesktopApplicationWithId("words.desktop")->name, "Wörter");
    }
    {
        ScopedVariable language("LANGUAGE", std::string("fr_CA:fr"));
        EXPECT_EQ(QVDesktopApplicationWithId("words.desktop")->name, "Mots");
    }
}

TEST(RunningApplications, LaunchingRunsTheEntrysCommandLine) {
    ApplicationsSandbox apps;
    const std::string marker = apps.path("launched");
    const std::string program = apps.script("qv-launch-probe", "printf '%s|%s' \"$1\" \"$2\" > '" + marker + "'");
    const std::string entry =
        apps.writeApplication("probe.desktop", "Probe", "'" + program + "' \"two words\" %U");
    QVError error;
    ASSERT_TRUE(QVLaunchApplication(entry, &error)) << error.description;
    ASSERT_TRUE(eventually([&] { return readAll(marker).find('|') != std::string::npos; }));
    EXPECT_EQ(readAll(marker), "two words|") << "quoting kept, the field code dropped";
}

TEST(RunningApplications, InstancesAreProcessesOfTheEntrysProgram) {
    ApplicationsSandbox apps;
    Children children;
    const std::string binary = apps.sleeper("qv-sleeper-bin");
    const std::string script = apps.script("qv-sleeper-sh", "while :; do sleep 0.2; done");
    apps.writeApplication("binary.desktop", "Binary Sleeper", binary + " 600");
    apps.writeApplication("script.desktop", "Script Sleeper", script);
    apps.writeApplication("other.desktop", "Other", apps.sleeper("qv-other-bin") + " 600");

    EXPECT_TRUE(QVRunningApplication::runningApplicationsWithBundleIdentifier("binary.desktop").empty());
    const pid_t first = children.start({binary, "600"});
    const pid_t second = children.start({binary, "600"});
    const pid_t shell = children.start({script});
    // Started under another path (a link): still the same program.
    std::filesystem::create_symlink(binary, apps.path("bin/link-to-sleeper"));
    const pid_t linked = children.start({apps.path("bin/link-to-sleeper"), "600"});
    ASSERT_GT(first, 0);
    ASSERT_GT(shell, 0);

    std::vector<pid_t> pids;
    ASSERT_TRUE(eventually([&] {
        pids.clear();
        for (const auto& app : QVRunningApplication::runningApplicationsWithBundleIdentifier("binary.desktop"))
            pids.push_back(app.processIdentifier());
        return pids.size() == 3;
    })) << pids.size();
    EXPECT_EQ(pids, (std::vector<pid_t>{first, second, linked}));
    std::vector<QVRunningApplication> scripts;
    ASSERT_TRUE(eventually([&] {
        scripts = QVRunningApplication::runningApplicationsWithBundleIdentifier("script.desktop");
        return !scripts.empty();
    }));
    ASSERT_EQ(scripts.size(), 1u) << "the shell running the script, not its children";
    EXPECT_EQ(scripts[0].processIdentifier(), shell);
    EXPECT_EQ(scripts[0].localizedName(), "Script Sleeper");
    EXPECT_EQ(scripts[0].bundleIdentifier(), "script.desktop");
    EXPECT_TRUE(QVRunningApplication::runningApplicationsWithBundleIdentifier("other.desktop").empty());

    // Asked to quit, each ends; one that has gone counts as terminated, also
    // before it is reaped, and is never signalled again.
    auto instance = QVRunningApplication::runningApplicationsWithBundleIdentifier("binary.desktop").front();
    EXPECT_FALSE(instance.isTerminated());
    EXPECT_TRUE(instance.terminate());
    EXPECT_TRUE(eventually([&] { return instance.isTerminated(); }));
    EXPECT_TRUE(instance.terminate());
    EXPECT_TRUE(children.exited(first) || eventually([&] { return children.exited(first); }));
    EXPECT_TRUE(scripts[0].terminate());
    EXPECT_TRUE(eventually([&] { return scripts[0].isTerminated(); }));
}

TEST(RunningApplications, TheTerminalIsARunningTerminalEmulator) {
    ApplicationsSandbox apps;
    Children children;
    const std::string term = apps.sleeper("qv-fake-term");
    apps.writeApplication("term.desktop", "Console Deluxe", term + " 600", "Categories=System;TerminalEmulator;\n");
    apps.writeApplication("notterm.desktop", "Not A Terminal", apps.sleeper("qv-not-term") + " 600",
                          "Categories=System;\n");
    children.start({apps.path("bin/qv-not-term"), "600"});
    EXPECT_FALSE(QVRunningTerminalApplication()) << "none of the terminals runs";
    children.start({term, "600"});
    std::optional<QVRunningApplication> found;
    ASSERT_TRUE(eventually([&] { return (found = QVRunningTerminalApplication()).has_value(); }));
    EXPECT_EQ(found->localizedName(), "Console Deluxe");
}
