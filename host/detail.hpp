// The reference host's own parts: tokens, image helpers, the host-function
// table and the script-function registry with its libffi calls.
#pragma once

#include <ffi.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/host.hpp"
#include "host/pixels.hpp"
#include "host/signature.hpp"
#include "sdk/kix_host_abi.h"

namespace kixhost::detail {

// ------------------------------------------------------------------ tokens
// A token handed to the module is the address of the Object.
inline KixObject* token(const Object* o) { return reinterpret_cast<KixObject*>(const_cast<Object*>(o)); }
inline Object* object(KixObject* t) { return reinterpret_cast<Object*>(t); }
// Takes over the reference a token carries.
inline ObjectPtr adopt(KixObject* t) { return ObjectPtr::adopt(object(t)); }

// The object behind a token, checked for its kind; `what` names the host
// function for the message of a wrong or missing token.
Image& image_arg(KixObject* t, const char* what);
TagGroup& tags_arg(KixObject* t, const char* what);
// The text of a string token ("" for the null token).
std::string text_arg(KixObject* t, const char* what);
// A new host string carrying one reference.
KixObject* new_string(std::string text);

// Pixel memory locked for the module: keeps the image and its block alive.
class Lock final : public Object {
public:
    explicit Lock(Image& image);
    ~Lock() override;
    ImagePtr image;
    std::shared_ptr<PixelBuffer> buffer;
    std::byte* data;
};

// A script exception object ("Throwable NewThrowableFromString( dm_string )").
class Throwable final : public Object {
public:
    explicit Throwable(std::string m) : Object(Kind::Other), message(std::move(m)) {}
    std::string message;
};

// ------------------------------------------------------------------ images
const char* type_name(int data_type);  // "Real 4", ... for messages
bool is_complex_type(int data_type);
bool is_real_type(int data_type);      // Real 4 and Real 8
bool is_integer_type(int data_type);

// A new whole image of `data_type` with `dims` (x first), dense pitches, one
// calibration per dimension and an empty tag group.  Throws
// std::invalid_argument for an unknown type or an impossible size.
ImagePtr make_image(int data_type, std::span<const std::int64_t> dims, std::string name, bool zero = true);
// A whole copy: pixels (dense, even from a subarea), name, calibrations, tags.
ImagePtr clone_image(const Image& src);
TagGroupPtr clone_tags(const TagGroup& src);
// Copies the pixels of src into dst, converting each to dst's type; both must
// have the same number of pixels, visited x fastest.
void convert_pixels(const Image& src, const Image& dst);
// Converts img in place to another type: new pixel memory, values converted.
void change_type(Image& img, int data_type);

// ---------------------------------------------------------- host functions
struct HostFunction {
    const char* prototype;
    void* function;
};
// The host functions that need no host of their own (images, tags, strings).
std::span<const HostFunction> stateless_host_functions();

// ------------------------------------------------------- script functions
// The ffi type of a script type as passed by value (pointers for `T *`).
ffi_type* ffi_type_of(const Type& t);
// Prepares a call interface for a non-variadic signature; atypes must outlive cif.
void prepare_cif(const Signature& sig, ffi_cif& cif, std::vector<ffi_type*>& atypes);

struct ScriptFunction {
    Signature signature;
    void* entry = nullptr;
    ffi_cif cif{};
    std::vector<ffi_type*> atypes;
    bool has_by_ref = false;
};

class Registry {
public:
    // Parses and adds a signature; returns 0, or a non-zero status and adds nothing.
    int add(const char* signature, void* entry, std::string* why = nullptr);
    CallResult call(std::string_view name, std::vector<Value>& args) const;
    const std::vector<std::string>& signatures() const { return texts_; }
    void clear();

private:
    struct TransparentHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
    };
    mutable std::shared_mutex mutex_;
    std::deque<ScriptFunction> functions_;  // stable addresses
    std::vector<std::string> texts_;
    std::unordered_map<std::string, std::vector<const ScriptFunction*>, TransparentHash, std::equal_to<>> by_name_;

    const ScriptFunction& resolve(std::string_view name, const std::vector<Value>& args) const;
};

// A report of the module's error manager while a script call runs on this thread.
struct PendingError {
    bool set = false;
    int kind = 0;
    int code = 0;
    std::string message;
    std::string context;
};
// The pending-error slot of the script call running on this thread, or null.
PendingError*& pending_error_slot();
// True while a script call runs on this thread.
bool in_script_call();

}  // namespace kixhost::detail
