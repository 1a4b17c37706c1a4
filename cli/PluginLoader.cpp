#include "PluginLoader.h"

#include <dlfcn.h>

#include <filesystem>

LoadedPlugin LoadPlugin(const std::vector<std::string>& candidates)
{
    LoadedPlugin p;
    for (const std::string& path : candidates) {
        std::error_code ec;
        if (!std::filesystem::exists(path, ec)) {
            p.error += "  not found: " + path + "\n";
            continue;
        }
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            p.error += std::string("  ") + dlerror() + "\n";
            continue;
        }
        p.create = reinterpret_cast<GetAlgoObjFn>(dlsym(handle, "GetAlgoObj"));
        if (p.create)
            return p;
        p.error += "  " + path + " has no GetAlgoObj\n";
        dlclose(handle);
    }
    return p;
}
