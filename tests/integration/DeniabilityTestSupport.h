#pragma once
// A user's home inside an image sandbox for the deniability tests: the data
// folder, its images and their temporary mount points all lie under the
// sandbox, which takes down whatever is left mounted or running. The image
// tool makes every token under the test's cheap parameters, like everything
// else in a test.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "automation/AutomationTestSupport.h"
#include "deniability/MigrationTestSupport.h"
#include "image/ImageTestSupport.h"
#include "support/QtApp.h"
#include "vault/Locations.h"
#include "vault/ScryptParams.h"
#include "vault/UserDefaults.h"

namespace qv::test {

class DeniabilityTest : public ::testing::Test {
protected:
    void SetUp() override {
        qtApp();
        std::filesystem::create_directories(home() + "/.local/share");
        std::filesystem::create_directories(home() + "/.config");
        std::filesystem::create_directories(home() + "/Documents");
        QVLocationsForgetCache();
        QVUserDefaults::standardUserDefaults().reopen();
    }
    void TearDown() override {
        processEventsFor(20);
        sandbox.cleanup();
        QVLocationsForgetCache();
        QVUserDefaults::standardUserDefaults().reopen();
    }
    std::string home() const { return sandbox.path("home"); }
    std::string data() const { return ourAppSupURL(); }
    std::vector<std::string> images() const {
        auto names = listDirectory(data() + "/Data");
        std::erase_if(names, [](const std::string& n) { return !n.ends_with(".sparsebundle"); });
        return names;
    }

    ImageSandbox sandbox; // first: torn down last, after the environment is back
    ScopedVariable toolDir{"QV_TOOL_DIR", std::string(QV_BINARY_DIR) + "/src"};
    ScopedVariable runtimeDir{"XDG_RUNTIME_DIR", sandbox.runtimeDir()};
    ScopedVariable layer{"QV_IMAGE_LAYER", "fuse2fs"};
    ScopedVariable tokens{QVImageScryptParamsVariable, QVScryptParamsText(QVScryptCheapParams)};
    ScopedVariable homeVar{"HOME", sandbox.path("home")};
    ScopedVariable dataHome{"XDG_DATA_HOME", sandbox.path("home/.local/share")};
    ScopedVariable configHome{"XDG_CONFIG_HOME", sandbox.path("home/.config")};
    ScopedVariable documents{"XDG_DOCUMENTS_DIR", sandbox.path("home/Documents")};
};

} // namespace qv::test
