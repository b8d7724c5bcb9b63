// Applications as desktop entries: which file an id names, what is no
// application, and which processes are the instances of one: a quit request
// must never reach a process that merely looks alike.
#include "disk/RunningApplications.h"

#include <gtest/gtest.h>

#include "automation/AutomationTestSupport.h"

using namespace qv;
using namespace qv::test;

TEST(RunningApplications, AnIdNamesTheFirstInstalledApplicationEntry) {
    ApplicationsSandbox apps;
    const std::string system = apps.path("system/applications");
    const std::string user = apps.writeApplication("editor.desktop", "Editor", "/bin/true");
    apps.writeEntry("editor.desktop", "[Desktop Entry]\nType=Application\nName=System\nExec=/bin/true\n", system);
    const std::string nested =
        apps.writeEntry("kde/viewer.desktop", "[Desktop Entry]\nType=Application\nName=V\nExec=/bin/true\n", system);
    EXPECT_EQ(QVDesktopEntryPathForId("editor.desktop"), user) << "the user's own directory first";
    EXPECT_EQ(QVDesktopEntryPathForId("kde-viewer.desktop"), nested) << "a dash may stand for a subdirectory";
    EXPECT_EQ(QVDesktopEntryPathForId("kde/viewer.desktop"), "");
    EXPECT_EQ(QVDesktopApplicationWithId("editor.desktop")->program, "/usr/bin/true") << "links resolved";

    // An entry marked Hidden (which also masks the system's), a link, and a file that is no key file.
    apps.writeEntry("kde/viewer.desktop", "[Desktop Entry]\nType=Application\nName=V\nExec=/bin/true\nHidden=true\n");
    const std::string link = apps.writeEntry("link.desktop", "[Desktop Entry]\nType=Link\nName=Web\nURL=https://example.org\n");
    apps.writeEntry("garbage.desktop", std::string("\x00\xff not a key file", 18));
    for (const char* id : {"kde-viewer.desktop", "link.desktop", "garbage.desktop"})
        EXPECT_FALSE(QVDesktopApplicationWithId(id)) << id;
    EXPECT_FALSE(QVLaunchApplication(link, nullptr));
}

TEST(RunningApplications, InstancesAreOurProcessesRunningTheEntrysProgram) {
    ApplicationsSandbox apps;
    Children children;
    const std::string binary = apps.sleeper("qv-sleeper-bin");
    const std::string script = apps.script("qv-sleeper-sh", "while :; do sleep 0.2; done");
    apps.writeApplication("binary.desktop", "Binary", binary + " 600");
    apps.writeApplication("script.desktop", "Script", script);
    apps.writeApplication("other.desktop", "Other", apps.sleeper("qv-other-bin") + " 600");
    std::filesystem::create_symlink(binary, apps.path("bin/link"));
    const pid_t first = children.start({binary, "600"});
    const pid_t linked = children.start({apps.path("bin/link"), "600"});
    const pid_t shell = children.start({script});

    auto pidsOf = [](const std::string& id) {
        std::vector<pid_t> pids;
        for (const auto& app : QVRunningApplication::runningApplicationsWithBundleIdentifier(id))
            pids.push_back(app.processIdentifier());
        return pids;
    };
    ASSERT_TRUE(eventually([&] { return pidsOf("binary.desktop").size() == 2 && pidsOf("script.desktop").size() == 1; }));
    EXPECT_EQ(pidsOf("binary.desktop"), (std::vector<pid_t>{first, linked}));
    EXPECT_EQ(pidsOf("script.desktop"), std::vector<pid_t>{shell}) << "the shell running it, not its children";
    EXPECT_TRUE(pidsOf("other.desktop").empty());

    // Asked to quit, it ends; one that has ended counts as terminated before it
    // is reaped, and is never signalled again.
    auto instance = QVRunningApplication::runningApplicationsWithBundleIdentifier("script.desktop").front();
    EXPECT_TRUE(instance.terminate());
    EXPECT_TRUE(eventually([&] { return instance.isTerminated(); }));
    EXPECT_TRUE(instance.terminate());
    EXPECT_TRUE(eventually([&] { return children.exited(shell); }));
}
