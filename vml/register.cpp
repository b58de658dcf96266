#include "plugin/registrars.hpp"
#include "plugin/registry.hpp"

namespace kix::vml {

void Register(Gatan::PlugIn::PlugInMain&, const std::string&) {}

}  // namespace kix::vml
