// The reference host: an in-process stand-in for the DigitalMicrograph-compatible
// host that the kix module plugs into.  It loads the module, calls its entry
// points in the host's order, keeps the signatures the module registers, owns
// images, tag groups and strings, answers host functions by prototype text and
// calls script functions through their signature text.
#pragma once

#include <atomic>
#include <complex>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "vorn/dm/data_type.hpp"

struct KixHostCallbacks;

namespace kixhost {

// ---------------------------------------------------------------- objects
// Every script object is reference counted; the token handed to the module is
// the Object's address.
class Object {
public:
    enum class Kind { Image, TagGroup, String, Lock, Other };
    explicit Object(Kind k) : kind_(k) {}
    virtual ~Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    Kind kind() const { return kind_; }
    void retain();
    void release();  // deletes the object with its last reference
    long refs() const;

private:
    Kind kind_;
    std::int64_t refs_ = 1;  // atomic access through retain/release
};

// Intrusive owning pointer.
template <class T>
class Ref {
public:
    Ref() = default;
    Ref(std::nullptr_t) {}
    static Ref adopt(T* p) { Ref r; r.p_ = p; return r; }  // takes over one reference
    static Ref share(T* p) { if (p) p->retain(); return adopt(p); }
    Ref(const Ref& o) : p_(o.p_) { if (p_) p_->retain(); }
    Ref(Ref&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ref(const Ref<U>& o) : p_(o.get()) { if (p_) p_->retain(); }
    Ref& operator=(Ref o) noexcept { std::swap(p_, o.p_); return *this; }
    ~Ref() { if (p_) p_->release(); }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    T* detach() { return std::exchange(p_, nullptr); }  // hands the reference to the caller

private:
    T* p_ = nullptr;
};

// Host pixel-type codes, under the host's names (the table is vorn/dm/data_type.hpp).
enum DataType : int {
    kInt16 = vorn::dm::kInt16, kFloat32 = vorn::dm::kReal4, kComplex64 = vorn::dm::kComplex8,
    kUInt8 = vorn::dm::kUInt8, kInt32 = vorn::dm::kInt32, kInt8 = vorn::dm::kInt8, kUInt16 = vorn::dm::kUInt16,
    kUInt32 = vorn::dm::kUInt32, kFloat64 = vorn::dm::kReal8, kComplex128 = vorn::dm::kComplex16,
    kBinary = vorn::dm::kBinary, kRGB = vorn::dm::kRGB
};
int element_bytes(int data_type);  // throws std::invalid_argument for an unknown code

struct Calibration {
    float origin = 0.0f;
    float scale = 1.0f;
    std::string units;
    bool displayed_calibrated = true;
};

class TagGroup;
class PixelBuffer;

// An image: 1 to 5 dimensions, x fastest.  A subarea shares its parent's pixels
// and has the parent's pitches.
class Image final : public Object {
public:
    Image() : Object(Kind::Image) {}
    int data_type = kFloat32;
    std::vector<std::int64_t> dims;     // size of each dimension
    std::vector<std::int64_t> pitches;  // bytes between neighbours along each dimension
    std::shared_ptr<PixelBuffer> buffer;
    std::size_t offset = 0;             // byte offset of pixel (0, 0, ...) in buffer
    std::string name;
    std::vector<Calibration> calibrations;  // one per dimension
    Calibration intensity;                  // of the pixel values (origin, scale, units)
    Ref<TagGroup> tags;
    bool is_subarea = false;
    std::atomic<std::int64_t> data_changed{0};  // calls of ImageDataChanged on this image
    std::atomic<int> locks{0};                  // pixel-data locks held by the module now

    std::byte* data() const;
    std::int64_t count() const;  // number of pixels
    bool contiguous() const;
};

// Tag groups hold named tags (groups) or indexed ones (lists); values are typed.
class TagGroup final : public Object {
public:
    using Value = std::variant<std::monostate, bool, std::int16_t, std::int32_t, std::uint32_t,
                               std::int64_t, float, double, std::string, Ref<TagGroup>>;
    struct Tag {
        std::string label;  // empty in lists
        Value value;
    };
    explicit TagGroup(bool list = false) : Object(Kind::TagGroup), is_list(list) {}
    bool is_list;
    std::vector<Tag> tags;  // in insertion order

    // Paths use ':' between levels, as the host's tag paths do; setting creates
    // the groups on the way.
    void set(std::string_view path, Value v);
    const Value* get(std::string_view path) const;
};

class String final : public Object {
public:
    explicit String(std::string s) : Object(Kind::String), text(std::move(s)) {}
    std::string text;
};

using ImagePtr = Ref<Image>;
using TagGroupPtr = Ref<TagGroup>;
using ObjectPtr = Ref<Object>;

// ------------------------------------------------------------ script calls
struct NullImage {};  // the null image token (no destination)

// A script value.  Void is only a result; NullImage is the null token.
using Value = std::variant<std::monostate, NullImage, bool, std::int64_t, double,
                           std::complex<double>, std::string, ObjectPtr>;

// Calls of host functions made by modules since the process started (all
// hosts together): the round trips a script function costs.
std::uint64_t host_function_calls() noexcept;

// A script error: the module's message and the handler's context name.
class ScriptError : public std::runtime_error {
public:
    ScriptError(const std::string& message, std::string context)
        : std::runtime_error(message), context_(std::move(context)) {}
    const std::string& context() const { return context_; }

private:
    std::string context_;
};

struct CallResult {
    Value result;                      // std::monostate for void functions
    std::vector<std::size_t> by_ref;   // indices of by-reference arguments, in order
    std::string signature;             // the overload that was called
};

struct ReportedError {
    int kind;
    int code;
    std::string message;
    std::string context;
};

struct HostOptions {
    std::string module_path;          // empty: the module built beside the host
    std::uint32_t host_version = 0x030A0000;
    bool register_floating_windows = true;  // a host may skip that entry point
    bool error_manager = true;
    bool output_window = true;
    bool verbose = false;             // echo the output window to stdout
    bool hand_over_callbacks = true;  // false: start the module without its callback table
};

class Host {
public:
    explicit Host(HostOptions options = {});  // loads the module and runs start-up
    ~Host();                                  // runs the closing entry points
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Entry points by export name ("PlugInRun", ...), for tests of the lifecycle.
    void entry_point(const char* name);
    void shutdown();  // idempotent

    // Objects.
    ImagePtr new_image(int data_type, const std::vector<std::int64_t>& dims, std::string name = {});
    ImagePtr subarea(const ImagePtr& parent, const std::vector<std::int64_t>& origin,
                     const std::vector<std::int64_t>& dims);
    TagGroupPtr new_tag_group(bool list = false);

    // Script functions, by name; the overload is chosen from the arguments.
    // By-reference arguments are updated in place.
    CallResult call(std::string_view name, std::vector<Value>& args);
    CallResult library_call(std::string_view name, std::vector<Value>& args);
    const std::vector<std::string>& signatures() const;
    std::vector<std::string> library_signatures() const;
    // The instruction set the module's vector bodies use here (empty when the
    // module does not say).
    std::string instruction_set() const;

    // Host functions.
    void* find_function(std::string_view prototype) const;
    void remove_host_function(std::string_view prototype);  // for tests of the missing path

    // What the module reported and wrote.  errors() holds the reports made
    // outside script calls (start-up and the other entry points); a report made
    // during a script call becomes that call's ScriptError instead.
    const std::vector<ReportedError>& errors() const;
    std::string output() const;

    // The callback table handed to the module, for code that links the module's
    // objects and talks to this host directly (Gatan::PlugIn::SetCallbacks).
    const KixHostCallbacks* callbacks() const;
    const std::string& module_path() const;                // the module file that was loaded
    std::pair<std::int32_t, std::int32_t> sdk_version() const;  // PlugInGetSDKVersion's answer
    std::vector<std::string> custom_tools() const;          // names registered by RegisterCustomTool

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace kixhost
