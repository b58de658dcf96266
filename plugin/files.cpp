// OpenImage, offered to scripts only through the larger library list: the
// host reads the file (whatever formats it knows) and the module hands the
// image on, so that a script sees the host's own opening of files, with the
// file's calibration and tags, under the module's name.
#include "plugin/handler.hpp"
#include "plugin/host_functions.hpp"
#include "plugin/registry.hpp"

namespace kix {
namespace {

Image OpenImageDM(const String& path) {
    Call call("OpenImageDM");
    KIX_CHECK(path.IsValid(), "Invalid file name.");
    return host::OpenImage(path);
}

const Rows kLibrary(List::Library, {
    {"ImageRef ", "OpenImage(dm_string strFileName)", entry<OpenImageDM>()},
});

}  // namespace
}  // namespace kix
