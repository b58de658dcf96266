// The host itself: loads a private instance of the module, hands it the
// callback table, runs the entry points in the host's order and keeps what the
// module registers, reports and writes.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "host/detail.hpp"

#ifndef KIX_BUILT_MODULE
#define KIX_BUILT_MODULE ""
#endif
#ifndef KIX_INSTALLED_MODULE
#define KIX_INSTALLED_MODULE ""
#endif

namespace kixhost {

using detail::object;
using detail::token;

namespace {

constexpr const char* kCopyPrefix = "kix-module-";

bool file_exists(const std::string& p) {
    struct stat st {};
    return !p.empty() && stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The module beside the program (or library) that holds this host: prefix/bin
// and prefix/lib of an installation, or a package directory holding both.
std::vector<std::string> modules_beside_this_code() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(&file_exists), &info) || !info.dli_fname) return {};
    std::string dir = info.dli_fname;
    const std::size_t slash = dir.rfind('/');
    dir = slash == std::string::npos ? "." : dir.substr(0, slash);
    return {dir + "/libkix.so", dir + "/../lib/libkix.so"};
}

std::string resolve_module(const HostOptions& o) {
    if (!o.module_path.empty()) return o.module_path;
    if (const char* env = std::getenv("KIX_MODULE"); env && *env) return env;
    for (const std::string& p : modules_beside_this_code())
        if (file_exists(p)) return p;
    if (file_exists(KIX_BUILT_MODULE)) return KIX_BUILT_MODULE;
    if (file_exists(KIX_INSTALLED_MODULE)) return KIX_INSTALLED_MODULE;
    throw std::runtime_error(std::string("No kix module found: pass HostOptions::module_path or set KIX_MODULE "
                                         "(looked beside this program, at ") +
                             KIX_BUILT_MODULE + " and at " + KIX_INSTALLED_MODULE + ").");
}

[[noreturn]] void system_error(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Loads the module from a private copy of its file, so that every host gets an
// instance of its own: its own plug-in object, trace counters and cached
// host-function bindings.  The copy is removed at once; the mapping stays.
void* load_private_copy(const std::string& path) {
    const int in = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) system_error("Cannot open the kix module " + path);
    const char* tmp = std::getenv("TMPDIR");
    std::string name = std::string(tmp && *tmp ? tmp : "/tmp") + "/" + kCopyPrefix + "XXXXXX";
    const int out = mkostemp(name.data(), O_CLOEXEC);
    if (out < 0) {
        close(in);
        system_error("Cannot make a private copy of the kix module in " + name);
    }
    char buf[1 << 16];
    for (;;) {
        const ssize_t n = read(in, buf, sizeof buf);
        if (n == 0) break;
        if (n < 0 || write(out, buf, std::size_t(n)) != n) {
            const int e = errno;
            close(in);
            close(out);
            unlink(name.c_str());
            errno = e;
            system_error("Cannot copy the kix module " + path);
        }
    }
    close(in);
    close(out);
    void* handle = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    const char* why = handle ? nullptr : dlerror();
    unlink(name.c_str());
    if (!handle) throw std::runtime_error("Cannot load the kix module " + path + ": " + (why ? why : "?"));

    // The libraries the module brought in (OpenMP, FFTW, OpenBLAS) stay loaded
    // for the life of the process: their worker threads outlive any module
    // instance, and reloading them for each host would be slow.
    // Each is held by one more reference that is never given back.
    link_map* lm = nullptr;
    std::vector<std::string> deps;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &lm) == 0 && lm)
        for (link_map* l = lm->l_next; l; l = l->l_next)
            if (l->l_name && *l->l_name && !std::strstr(l->l_name, kCopyPrefix)) deps.emplace_back(l->l_name);
    static std::mutex pinned_mutex;
    static std::vector<std::string> pinned;
    std::lock_guard<std::mutex> lock(pinned_mutex);
    for (const std::string& d : deps)
        if (std::find(pinned.begin(), pinned.end(), d) == pinned.end() && dlopen(d.c_str(), RTLD_LAZY | RTLD_NOLOAD))
            pinned.push_back(d);
    return handle;
}

// A host function made for one host: a libffi closure with the exact C
// signature of its prototype, calling back into that host.
struct Closure {
    Signature signature;
    ffi_cif cif{};
    std::vector<ffi_type*> atypes;
    ffi_closure* closure = nullptr;
    void* code = nullptr;
    ~Closure() {
        if (closure) ffi_closure_free(closure);
    }
};

template <class T>
T arg(void** args, int i) {
    return *static_cast<T*>(args[i]);
}

}  // namespace

// ------------------------------------------------------------------ Impl

struct Host::Impl {
    // The callback table and the host it leads to.  A module that stays loaded
    // after its host is gone (dlclose need not unload) keeps a valid table; its
    // callbacks then find no host.
    struct Link {
        KixHostCallbacks table{};
        std::atomic<Impl*> impl{nullptr};
    };

    // Links are kept for the life of the process (see ~Host), past the static
    // destructors too: a module that stays loaded runs its own at the very end.
    static Link* new_link() {
        static auto* mutex = new std::mutex();
        static auto* links = new std::deque<Link>();
        std::lock_guard<std::mutex> lock(*mutex);
        return &links->emplace_back();
    }

    HostOptions options;
    std::string module_file;
    void* module = nullptr;
    Link* link = nullptr;

    void (*set_callbacks)(const KixHostCallbacks*) = nullptr;
    void (*get_sdk_version)(std::int32_t*, std::int32_t*) = nullptr;
    void (*register_floating_windows)() = nullptr;
    void (*startup)() = nullptr;
    void (*run)() = nullptr;
    bool (*request_close)() = nullptr;
    void (*prepare_close)() = nullptr;
    void (*cleanup)() = nullptr;
    void (*shutdown)() = nullptr;
    KixLibraryFunctionsFn library_functions = nullptr;
    const char* (*instruction_set)() = nullptr;

    detail::Registry scripts;
    detail::Registry library;

    mutable std::mutex mutex;  // host functions, errors, output, tools
    std::unordered_map<std::string, void*> host_functions;
    std::vector<std::unique_ptr<Closure>> closures;
    std::vector<ReportedError> errors;
    std::string output;
    std::map<std::uint64_t, std::string> tools;
    std::uint64_t next_tool = 1;
    std::int32_t sdk_major = 0, sdk_minor = 0;
    bool handed_over = false;  // the module has its callback table
    bool plugin_ended = false;
    bool unloaded = false;

    void append_output(const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex);
        output += text;
        if (options.verbose) {
            std::fwrite(text.data(), 1, text.size(), stdout);
            std::fflush(stdout);
        }
    }

    void add_closure(const char* prototype, void (*handler)(ffi_cif*, void*, void**, void*)) {
        auto c = std::make_unique<Closure>();
        c->signature = parse_signature(prototype);
        detail::prepare_cif(c->signature, c->cif, c->atypes);
        c->closure = static_cast<ffi_closure*>(ffi_closure_alloc(sizeof(ffi_closure), &c->code));
        if (!c->closure || ffi_prep_closure_loc(c->closure, &c->cif, handler, this, c->code) != FFI_OK)
            throw std::runtime_error(std::string("libffi cannot make the host function ") + prototype);
        host_functions[prototype] = c->code;
        closures.push_back(std::move(c));
    }

    // ------------------------------------------------- host's own functions
    // "void WriteOutputWindow( dm_string module_name, uint32 output_type, dm_string text )":
    // the text goes to the captured output window.
    static void write_output_window(ffi_cif*, void*, void** args, void* self) {
        Object* text = object(arg<KixObject*>(args, 2));
        if (text && text->kind() == Object::Kind::String)
            static_cast<Impl*>(self)->append_output(static_cast<String*>(text)->text);
    }
    // "void ShowAlert( dm_string, long )": headless, the alert is written to the
    // output window as "Alert: " and its text.
    static void show_alert(ffi_cif*, void*, void** args, void* self) {
        Object* text = object(arg<KixObject*>(args, 0));
        std::string line = "Alert: ";
        if (text && text->kind() == Object::Kind::String) line += static_cast<String*>(text)->text;
        static_cast<Impl*>(self)->append_output(line + "\n");
    }
    // "uint64 RegisterCustomTool( uint64, string, uint64 )": remembers the tool's
    // name and answers a new non-zero identifier.
    static void register_custom_tool(ffi_cif*, void* ret, void** args, void* self) {
        Impl* impl = static_cast<Impl*>(self);
        Object* name = object(arg<KixObject*>(args, 1));
        std::lock_guard<std::mutex> lock(impl->mutex);
        const std::uint64_t id = impl->next_tool++;
        impl->tools[id] = name && name->kind() == Object::Kind::String ? static_cast<String*>(name)->text : "";
        *static_cast<std::uint64_t*>(ret) = id;
    }
    // "void UnregisterCustomTool( uint64 )"
    static void unregister_custom_tool(ffi_cif*, void*, void** args, void* self) {
        Impl* impl = static_cast<Impl*>(self);
        std::lock_guard<std::mutex> lock(impl->mutex);
        impl->tools.erase(arg<std::uint64_t>(args, 0));
    }

    // ------------------------------------------------- callback table
    static Impl* of(void* host) { return static_cast<Link*>(host)->impl.load(std::memory_order_acquire); }

    static void* cb_find_function(void* host, const char* prototype) {
        Impl* impl = of(host);
        if (!impl || !prototype) return nullptr;
        std::lock_guard<std::mutex> lock(impl->mutex);
        auto it = impl->host_functions.find(prototype);
        return it == impl->host_functions.end() ? nullptr : it->second;
    }
    static std::int32_t cb_add_function(void* host, const char* signature, void* function) {
        Impl* impl = of(host);
        if (!impl) return 1;
        std::string why;
        const int status = impl->scripts.add(signature, function, &why);
        if (status != 0)
            std::fprintf(stderr, "kixhost: refused the script function \"%s\": %s\n", signature ? signature : "",
                         why.c_str());
        return status;
    }
    static void cb_retain(void*, KixObject* o) {
        if (o) object(o)->retain();
    }
    static void cb_release(void*, KixObject* o) {
        if (o) object(o)->release();
    }
    // During a script call the first report becomes that call's error; any
    // other report is kept in errors().
    static void cb_report_error(void* host, std::int32_t kind, std::int32_t code, const char* message,
                                const char* context) {
        const std::string m = message ? message : "";
        const std::string c = context ? context : "";
        if (detail::PendingError* p = detail::pending_error_slot()) {
            if (!p->set) {
                p->set = true;
                p->kind = kind;
                p->code = code;
                p->message = m;
                p->context = c;
            }
            return;
        }
        Impl* impl = of(host);
        if (!impl || impl->options.verbose)
            std::fprintf(stderr, "kixhost: error %d: %s%s%s\n", int(code), m.c_str(), c.empty() ? "" : " in ",
                         c.c_str());
        if (!impl) return;
        std::lock_guard<std::mutex> lock(impl->mutex);
        impl->errors.push_back({kind, code, m, c});
    }
    static void cb_write_output(void* host, const char* text) {
        if (Impl* impl = of(host); impl && text) impl->append_output(text);
    }
    static KixObject* cb_string_new(void*, const char* utf8, std::size_t length) {
        return detail::new_string(utf8 ? std::string(utf8, length) : std::string());
    }
    static const char* cb_string_text(void*, KixObject* s, std::size_t* length) {
        Object* o = object(s);
        if (!o || o->kind() != Object::Kind::String) {
            if (length) *length = 0;
            return nullptr;
        }
        const std::string& t = static_cast<String*>(o)->text;
        if (length) *length = t.size();
        return t.c_str();
    }

    template <class F>
    F need(const char* name) {
        void* p = dlsym(module, name);
        if (!p) throw std::runtime_error("The kix module " + module_file + " has no entry point " + name + ".");
        return reinterpret_cast<F>(p);
    }

    void load() {
        module_file = resolve_module(options);
        module = load_private_copy(module_file);
        try {
            set_callbacks = need<decltype(set_callbacks)>("PlugInSetHostCallbacks");
            get_sdk_version = need<decltype(get_sdk_version)>("PlugInGetSDKVersion");
            register_floating_windows = need<decltype(register_floating_windows)>("PlugInRegisterFloatingWindows");
            startup = need<decltype(startup)>("PlugInStartup");
            run = need<decltype(run)>("PlugInRun");
            request_close = need<decltype(request_close)>("PlugInRequestClose");
            prepare_close = need<decltype(prepare_close)>("PlugInPrepareClose");
            cleanup = need<decltype(cleanup)>("PlugInCleanup");
            shutdown = need<decltype(shutdown)>("PlugInShutdown");
            library_functions = reinterpret_cast<KixLibraryFunctionsFn>(dlsym(module, "KIXLibraryFunctions"));
            instruction_set = reinterpret_cast<const char* (*)()>(dlsym(module, "KIXInstructionSet"));
        } catch (...) {
            dlclose(module);
            module = nullptr;
            throw;
        }
    }

    void load_library_lists() {
        if (!library_functions) return;
        for (std::int32_t list = 0; list < 2; ++list) {
            std::size_t count = 0;
            const KixFunctionEntry* entries = library_functions(list, &count);
            for (std::size_t i = 0; entries && i < count; ++i) {
                std::string why;
                if (library.add(entries[i].signature, entries[i].function, &why) != 0)
                    std::fprintf(stderr, "kixhost: refused the library function \"%s\": %s\n",
                                 entries[i].signature ? entries[i].signature : "", why.c_str());
            }
        }
    }

    // The closing entry points (unless the plug-in has ended already), then unload.
    void close() {
        if (unloaded) return;
        if (module && !plugin_ended && handed_over) {
            request_close();
            prepare_close();
            cleanup();
            shutdown();
            plugin_ended = true;
        }
        scripts.clear();
        library.clear();
        if (module) dlclose(module);
        module = nullptr;
        unloaded = true;
    }
};

// ------------------------------------------------------------------ Host

Host::Host(HostOptions options) : impl_(std::make_unique<Impl>()) {
    Impl& m = *impl_;
    m.options = std::move(options);
    for (const detail::HostFunction& f : detail::stateless_host_functions()) m.host_functions[f.prototype] = f.function;
    m.add_closure("void WriteOutputWindow( dm_string module_name, uint32 output_type, dm_string text )",
                  &Impl::write_output_window);
    m.add_closure("void ShowAlert( dm_string, long )", &Impl::show_alert);
    m.add_closure("uint64 RegisterCustomTool( uint64, string, uint64 )", &Impl::register_custom_tool);
    m.add_closure("void UnregisterCustomTool( uint64 )", &Impl::unregister_custom_tool);

    m.link = Impl::new_link();
    m.link->impl.store(&m);
    KixHostCallbacks& t = m.link->table;
    t.abi_version = KIX_HOST_ABI_VERSION;
    t.host_version = m.options.host_version;
    t.host = m.link;
    t.find_function = &Impl::cb_find_function;
    t.add_function = &Impl::cb_add_function;
    t.retain = &Impl::cb_retain;
    t.release = &Impl::cb_release;
    t.report_error = m.options.error_manager ? &Impl::cb_report_error : nullptr;
    t.write_output = m.options.output_window ? &Impl::cb_write_output : nullptr;
    t.string_new = &Impl::cb_string_new;
    t.string_text = &Impl::cb_string_text;

    try {
        m.load();
        // The host's order: callbacks, SDK version, floating windows (a host may
        // skip them), start-up.
        if (m.options.hand_over_callbacks) {
            m.set_callbacks(&t);
            m.handed_over = true;
        }
        m.get_sdk_version(&m.sdk_major, &m.sdk_minor);
        if (m.options.register_floating_windows) m.register_floating_windows();
        m.startup();
        m.load_library_lists();
    } catch (...) {
        if (m.module) dlclose(m.module);
        m.link->impl.store(nullptr);  // the table stays valid for a module that stays loaded
        throw;
    }
}

Host::~Host() {
    try {
        shutdown();
    } catch (...) {
    }
    // The small callback table is left allocated on purpose: a module that
    // dlclose did not unload, or code linking the module's objects that was
    // handed the table, may still reach it, and then finds no host.
    impl_->link->impl.store(nullptr);
}

void Host::shutdown() { impl_->close(); }

void Host::entry_point(const char* name) {
    Impl& m = *impl_;
    if (m.unloaded) throw std::runtime_error("The host has shut down; the module is unloaded.");
    const std::string_view n = name ? name : "";
    if (n == "PlugInSetHostCallbacks") {
        m.set_callbacks(&m.link->table);
        m.handed_over = true;
    }
    else if (n == "PlugInGetSDKVersion") m.get_sdk_version(&m.sdk_major, &m.sdk_minor);
    else if (n == "PlugInRegisterFloatingWindows") m.register_floating_windows();
    else if (n == "PlugInStartup") m.startup();
    else if (n == "PlugInRun") m.run();
    else if (n == "PlugInRequestClose") m.request_close();
    else if (n == "PlugInPrepareClose") m.prepare_close();
    else if (n == "PlugInCleanup") m.cleanup();
    else if (n == "PlugInShutdown") {
        m.shutdown();
        m.plugin_ended = true;
    } else {
        throw std::invalid_argument("There is no entry point named \"" + std::string(n) + "\".");
    }
}

ImagePtr Host::new_image(int data_type, const std::vector<std::int64_t>& dims, std::string name) {
    return detail::make_image(data_type, dims, std::move(name), true);
}

ImagePtr Host::subarea(const ImagePtr& parent, const std::vector<std::int64_t>& origin,
                       const std::vector<std::int64_t>& dims) {
    if (!parent) throw std::invalid_argument("A subarea needs a parent image.");
    const std::size_t n = parent->dims.size();
    if (origin.size() != n || dims.size() != n)
        throw std::invalid_argument("A subarea gives an origin and a size for each of the parent's " +
                                    std::to_string(n) + " dimensions.");
    ImagePtr img = ImagePtr::adopt(new Image());
    img->data_type = parent->data_type;
    img->buffer = parent->buffer;
    img->offset = parent->offset;
    img->pitches = parent->pitches;
    img->dims = dims;
    img->calibrations = parent->calibrations;
    img->calibrations.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        if (origin[i] < 0 || dims[i] < 1 || origin[i] + dims[i] > parent->dims[i])
            throw std::invalid_argument("The subarea does not lie inside its parent along dimension " +
                                        std::to_string(i) + ".");
        img->offset += std::size_t(origin[i] * parent->pitches[i]);
        // Pixel i of the subarea is pixel origin + i of the parent.
        img->calibrations[i].origin -= float(origin[i]);
    }
    img->name = parent->name;
    img->tags = TagGroupPtr::adopt(new TagGroup(false));
    img->is_subarea = true;
    return img;
}

TagGroupPtr Host::new_tag_group(bool list) { return TagGroupPtr::adopt(new TagGroup(list)); }

CallResult Host::call(std::string_view name, std::vector<Value>& args) {
    if (impl_->unloaded) throw ScriptError("The host has shut down; the module is unloaded.", std::string(name));
    return impl_->scripts.call(name, args);
}

CallResult Host::library_call(std::string_view name, std::vector<Value>& args) {
    if (impl_->unloaded) throw ScriptError("The host has shut down; the module is unloaded.", std::string(name));
    return impl_->library.call(name, args);
}

const std::vector<std::string>& Host::signatures() const { return impl_->scripts.signatures(); }
std::vector<std::string> Host::library_signatures() const { return impl_->library.signatures(); }

std::string Host::instruction_set() const {
    return impl_->instruction_set ? impl_->instruction_set() : std::string();
}

void* Host::find_function(std::string_view prototype) const {
    return Impl::cb_find_function(impl_->link, std::string(prototype).c_str());
}

void Host::remove_host_function(std::string_view prototype) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->host_functions.erase(std::string(prototype)) == 0)
        throw std::invalid_argument("The host has no function \"" + std::string(prototype) + "\".");
}

const std::vector<ReportedError>& Host::errors() const { return impl_->errors; }

std::string Host::output() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->output;
}

const KixHostCallbacks* Host::callbacks() const { return &impl_->link->table; }
const std::string& Host::module_path() const { return impl_->module_file; }
std::pair<std::int32_t, std::int32_t> Host::sdk_version() const { return {impl_->sdk_major, impl_->sdk_minor}; }

std::vector<std::string> Host::custom_tools() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    std::vector<std::string> out;
    for (const auto& [id, name] : impl_->tools) out.push_back(name);
    return out;
}

}  // namespace kixhost
