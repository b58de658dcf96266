// The host plug-in SDK surface the module is written against: the plug-in
// object and its accessor, the add-function operation, host object handles,
// the pixel-data locker and the error manager.  Everything here rests on the
// callback table of kix_host_abi.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "kix_host_abi.h"

namespace Gatan {

namespace PlugIn {

// The callback table of the host; asserts "sCallbacks != NULL" when the host
// has not handed one over.
const KixHostCallbacks& Callbacks();
bool HasCallbacks();
void SetCallbacks(const KixHostCallbacks* callbacks);

// Failure of the host SDK (a missing host function, a refused registration).
class dmplugin_exception : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A counted reference to a host object.  Copies retain, destruction releases.
class Object {
public:
    Object() = default;
    static Object Adopt(KixObject* token) { Object o; o.token_ = token; return o; }
    static Object Borrow(KixObject* token);  // takes a reference of its own
    Object(const Object& other);
    Object(Object&& other) noexcept : token_(std::exchange(other.token_, nullptr)) {}
    Object& operator=(Object other) noexcept { std::swap(token_, other.token_); return *this; }
    ~Object();

    KixObject* get() const { return token_; }
    bool IsValid() const { return token_ != nullptr; }
    KixObject* release() { return std::exchange(token_, nullptr); }  // hands the reference on

protected:
    KixObject* token_ = nullptr;
};

// Hands the signature text and the C entry point to the host's add-function
// operation; a refusal raises dmplugin_exception.
void AddFunction(const std::string& signature, void* function);

class PlugInMain {
public:
    virtual ~PlugInMain() = default;
    virtual void RegisterFloatingWindows() {}
    virtual void Start() {}
    virtual void Run() {}
    virtual bool RequestClose() { return true; }
    virtual void PrepareClose() {}
    virtual void Cleanup() {}
    virtual void End() {}
};

// Link to the host, established before registration and released at shutdown.
void EstablishHostLink();
void ReleaseHostLink();
bool HostLinkEstablished();
std::uint32_t HostVersion();

}  // namespace PlugIn

namespace DM {

class Image : public PlugIn::Object {
public:
    Image() = default;
    Image(PlugIn::Object o) : PlugIn::Object(std::move(o)) {}
};

class TagGroup : public PlugIn::Object {
public:
    TagGroup() = default;
    TagGroup(PlugIn::Object o) : PlugIn::Object(std::move(o)) {}
};

class ScriptObject : public PlugIn::Object {
public:
    ScriptObject() = default;
    ScriptObject(PlugIn::Object o) : PlugIn::Object(std::move(o)) {}
};

// A host string (`string` and `dm_string` in prototypes).
class String : public PlugIn::Object {
public:
    String() = default;
    String(PlugIn::Object o) : PlugIn::Object(std::move(o)) {}
    explicit String(std::string_view text);  // makes a new host string
    std::string get_string() const;
};

}  // namespace DM

// The host's error manager.  GetErrorManager() answers null when the host has
// none; a temporary ErrorManager then reports to the standard error stream.
class ErrorManager {
public:
    virtual ~ErrorManager() = default;
    virtual void HandleExceptionError(const char* message, std::int32_t code);
    virtual void HandleContinuableError(const std::exception& e, const char* context);
    virtual void HandleError(const char* message, std::int32_t code);
};
ErrorManager* GetErrorManager();

namespace PlugIn {

// Pixel memory of one host image, locked for the life of the locker.
class ImageDataLocker {
public:
    explicit ImageDataLocker(const DM::Image& image);
    ImageDataLocker(const ImageDataLocker&) = delete;
    ImageDataLocker& operator=(const ImageDataLocker&) = delete;

    void* get() const { return data_; }
    std::uint32_t num_dimensions() const { return ndim_; }
    std::int64_t size(std::uint32_t dim) const { return dim < ndim_ ? info_[2 * dim] : 1; }
    std::int64_t pitch(std::uint32_t dim) const;  // bytes between neighbours along dim
    std::uint32_t data_type() const { return data_type_; }

private:
    DM::ScriptObject lock_;
    void* data_ = nullptr;
    std::uint32_t ndim_ = 0;
    std::uint32_t data_type_ = 0;
    std::uint32_t pack_style_ = 0;
    std::int32_t info_[2 * 5] = {};  // size and byte pitch of each dimension
};

}  // namespace PlugIn
}  // namespace Gatan
