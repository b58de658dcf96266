// The module registrars, in the order start-up calls them.
#pragma once

#include <string>

#include "sdk/plugin_sdk.hpp"

namespace kix {

using Registrar = void (*)(Gatan::PlugIn::PlugInMain&, const std::string&);

void RegisterFilterSurvey(Gatan::PlugIn::PlugInMain&, const std::string& prefix);
void RegisterSIMD(Gatan::PlugIn::PlugInMain&, const std::string& prefix);
void RegisterVersion(Gatan::PlugIn::PlugInMain&, const std::string& prefix);
namespace vml {
void Register(Gatan::PlugIn::PlugInMain&, const std::string& prefix);
}
// The registration master's own entries.
void RegisterMaster(Gatan::PlugIn::PlugInMain&, const std::string& prefix);

}  // namespace kix
