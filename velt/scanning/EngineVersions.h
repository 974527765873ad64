// EngineVersions: what the framework said of its engines at start-up; written into every result of their kind.
// Written once, before threads start; read without a lock afterwards.
#pragma once

#include <string>

namespace VELT {

struct EngineVersions {
    std::string engine;
    std::string definitions;

    static EngineVersions s_AntiVirus;
    static EngineVersions s_AntiSpam;
};

}  // namespace VELT
