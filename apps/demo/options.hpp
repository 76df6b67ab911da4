#pragma once

// The demo's command line.

#include <cstdio>
#include <optional>
#include <string>

#include "apps/demo/customer.hpp"

namespace demo {

struct Options {
    std::optional<std::string> baseUrl;  // none: the embedded local backend
    std::string key = "vk_demo_local";
    std::optional<std::string> stateDir;
    std::optional<double> staySeconds;
    std::string outDir = "virela-captures";
    ConsentPolicy consent = ConsentPolicy::allow;
    bool console = false;  // a person plays the agent in the local backend's console
    std::optional<std::string> consoleDir;
    std::optional<std::string> traffic;  // where the local backend records the device traffic
    bool help = false;
};

void printUsage(std::FILE* out);
// nullopt (after saying why on standard error) for a command line that does not parse.
std::optional<Options> parseOptions(int argc, char** argv);

}  // namespace demo
