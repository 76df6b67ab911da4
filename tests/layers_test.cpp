// The include-graph check, run as CTest runs it, over small trees made for each case.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr const char* kLayers = R"(# a small tree shaped like ours
core/base:
core/ports: core/base
core/control: core/base core/ports
core/live: core/base core/ports core/control
core/lease: core/base core/ports
    core/control
platform/headless: core/api core/ports core/base
platform/ios: core/api core/ports core/base
include-path: platform/ios/objc/include
core/api: core/base core/ports core/control
apps/demo: core/api platform/headless/runtime.hpp
)";

struct Outcome {
    int status = -1;
    std::string output;
};

class LayersCheck : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "virela-layers-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        write("layers.txt", kLayers);
        write("core/base/values.hpp", "#include <vector>\n#include <boost/none.hpp>\n");
        write("core/ports/host.hpp", "#include \"core/base/values.hpp\"\n");
        write("core/control/windows.hpp", "#include <core/ports/host.hpp>\n");
        write("core/control/windows.cpp", "#include \"windows.hpp\"\n");
        write("core/live/guides.hpp", "#include \"../control/windows.hpp\"\n");
        write("core/lease/lease.hpp", "#include \"core/control/windows.hpp\"\n");
        write("core/api/virela.hpp", "#include \"core/ports/host.hpp\"\n");
        write("platform/headless/runtime.hpp", "#include \"core/api/virela.hpp\"\n");
        write("platform/headless/host/screen.hpp", "#include \"../runtime.hpp\"\n");
        write("platform/ios/objc/include/Kit/Kit.h", "#import <Kit/Other.h>\n");
        write("platform/ios/objc/include/Kit/Other.h", "");
        write("platform/ios/objc/src/facade.mm",
              "#import \"Kit/Kit.h\"\n#include \"core/ports/host.hpp\"\n");
        write("apps/demo/main.cpp",
              "#include \"core/api/virela.hpp\"\n  #  include  <platform/headless/runtime.hpp>\n");
    }
    void TearDown() override { fs::remove_all(root); }

    void write(const std::string& path, const std::string& text) {
        fs::create_directories((root / path).parent_path());
        std::ofstream(root / path) << text;
    }

    Outcome check() {
        const std::string command = std::string(VIRELA_CHECK_LAYERS) + " '" + root.string() +
                                    "' '" + (root / "layers.txt").string() + "' 2>&1";
        Outcome run;
        FILE* pipe = popen(command.c_str(), "r");
        std::array<char, 256> chunk;
        while (std::size_t n = std::fread(chunk.data(), 1, chunk.size(), pipe)) {
            run.output.append(chunk.data(), n);
        }
        const int status = pclose(pipe);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return run;
    }

    fs::path root;
};

TEST_F(LayersCheck, ATreeThatFollowsTheGraphPasses) {
    const Outcome run = check();
    EXPECT_EQ(run.status, 0) << run.output;
}

struct BadInclude {
    const char* name;
    const char* file;
    const char* text;
    const char* expected;  // what the finding must say besides the file
};
void PrintTo(const BadInclude& bad, std::ostream* out) {
    *out << bad.name;
}

class LayersCheckFinds : public LayersCheck, public ::testing::WithParamInterface<BadInclude> {};

TEST_P(LayersCheckFinds, ABadIncludeAndCountsIt) {
    const BadInclude& bad = GetParam();
    write(bad.file, std::string("// one good line first\n#include <string>\n") + bad.text);
    const Outcome run = check();
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_NE(run.output.find(std::string(bad.file) + ":3: includes "), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find(bad.expected), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("layers: 1 finding against"), std::string::npos) << run.output;
}

INSTANTIATE_TEST_SUITE_P(
    EveryKind, LayersCheckFinds,
    ::testing::Values(
        BadInclude{"QuotedUpwardsInAHeader", "core/base/bad.hpp",
                   "#include \"core/ports/host.hpp\"", "core/base may include only itself"},
        BadInclude{"AngledInASource", "core/ports/bad.cpp", "#include <core/control/windows.hpp>",
                   "core/ports may include only core/base"},
        BadInclude{"RelativeToAPeerInAPlainHeader", "core/control/bad.h",
                   "#include \"../live/guides.hpp\"", "(core/live/guides.hpp)"},
        BadInclude{"PeerToPeer", "core/lease/bad.cpp", "#include \"core/live/guides.hpp\"",
                   "core/lease may include only core/base core/ports core/control"},
        BadInclude{"PlatformIntoASubsystem", "platform/ios/objc/src/bad.mm",
                   "#import \"core/control/windows.hpp\"", "platform/ios may include only"},
        BadInclude{"IosIntoHeadlessFromObjectiveC", "platform/ios/objc/src/bad.m",
                   "#import \"../../../headless/runtime.hpp\"", "(platform/headless/runtime.hpp)"},
        BadInclude{"HeadlessIntoIosThroughItsIncludePath", "platform/headless/bad.cpp",
                   "#include \"Kit/Kit.h\"", "(platform/ios/objc/include/Kit/Kit.h)"},
        BadInclude{"AnUnlistedHeaderOfAListedFolder", "apps/demo/bad.cpp",
                   "#include \"platform/headless/host/screen.hpp\"", "apps/demo may include only"},
        BadInclude{"IntoAnUndeclaredFolder", "core/control/bad.hpp",
                   "#include \"core/theme/palette.hpp\"", "lies in no folder"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(LayersCheck, ASourceInAnUndeclaredFolderFails) {
    write("core/theme/palette.hpp", "#include <string>\n");
    const Outcome run = check();
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("core/theme/: in no folder"), std::string::npos) << run.output;
}

TEST_F(LayersCheck, ADeclaredGraphThatRunsInACircleFails) {
    std::string layers = kLayers;
    layers.replace(layers.find("core/ports: core/base"), 21, "core/ports: core/base core/lease");
    write("layers.txt", layers);
    const Outcome run = check();
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("circle: core/ports -> core/lease -> core/ports"), std::string::npos)
        << run.output;
}

TEST_F(LayersCheck, AGraphThatContradictsItselfOrTheTreeFails) {
    write("layers.txt", std::string(kLayers) + "core/base: core/live\n");
    EXPECT_EQ(check().status, 2);  // declared twice
    write("layers.txt", std::string(kLayers) + "tools/devserver: core/theme\n");
    EXPECT_EQ(check().status, 2);  // core/theme is no declared folder

    write("layers.txt", std::string(kLayers) + "tools/devserver: core/api/gone.hpp\n");
    const Outcome run = check();
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("declares tools/devserver, which does not exist"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("lists core/api/gone.hpp, which does not exist"), std::string::npos)
        << run.output;
}

}  // namespace
