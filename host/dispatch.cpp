// Script calls: an overload is chosen from the arguments, the arguments are
// converted to the C types of its signature, the handler is called through
// libffi with the call interface prepared when the function was registered,
// and its result, by-reference values and error report come back.
#include <cmath>
#include <cstring>
#include <limits>

#include "host/detail.hpp"

namespace kixhost::detail {

namespace {

thread_local PendingError* tPending = nullptr;
thread_local int tCallDepth = 0;

// std::complex<double> by value: two doubles, passed and returned as a struct.
ffi_type* complex_type() {
    static ffi_type* elements[] = {&ffi_type_double, &ffi_type_double, nullptr};
    static ffi_type type = [] {
        ffi_type t{};
        t.type = FFI_TYPE_STRUCT;
        t.elements = elements;
        // Lay it out once, before any call interface uses it concurrently.
        ffi_cif cif;
        ffi_type* args[] = {&t};
        ffi_prep_cif(&cif, FFI_DEFAULT_ABI, 1, &ffi_type_void, args);
        return t;
    }();
    return &type;
}

constexpr std::size_t kMaxParameters = 64;

// One argument's C value; by-reference parameters point at their slot.
union Slot {
    std::int8_t i8;
    std::uint8_t u8;
    bool b;
    char c;
    std::int16_t i16;
    std::uint16_t u16;
    std::int32_t i32;
    std::uint32_t u32;
    std::int64_t i64;
    std::uint64_t u64;
    float f;
    double d;
    double z[2];
    KixObject* t;
    void* p;
};

// Large enough for any result: ffi widens small integers to ffi_arg.
union Result {
    ffi_arg word;
    std::int64_t i64;
    std::uint64_t u64;
    float f;
    double d;
    double z[2];
    KixObject* t;
};

const char* value_text(const Value& v) {
    switch (v.index()) {
        case 0: return "nothing";
        case 1: return "null image";
        case 2: return "bool";
        case 3: return "integer";
        case 4: return "real number";
        case 5: return "complex number";
        case 6: return "string";
        default: {
            const Object* o = std::get<ObjectPtr>(v).get();
            if (!o) return "null image";
            switch (o->kind()) {
                case Object::Kind::Image:
                    return is_complex_type(static_cast<const Image*>(o)->data_type) ? "complex image" : "image";
                case Object::Kind::TagGroup: return "tag group";
                case Object::Kind::String: return "string";
                default: return "script object";
            }
        }
    }
}

bool integral(double x) { return std::isfinite(x) && std::trunc(x) == x; }

// How well value v fits parameter type t: 0 not at all, 4 exactly; the
// overload with the best total wins, the first registered on a tie.
int score(const Type& t, const Value& v) {
    const Object* o = nullptr;
    if (auto* p = std::get_if<ObjectPtr>(&v)) {
        o = p->get();
        if (!o) return t.base == Base::Image || t.base == Base::TagGroup || t.base == Base::Object ? 1 : 0;
    }
    const bool null = std::holds_alternative<NullImage>(v);
    switch (t.base) {
        case Base::Void: return 0;
        case Base::Bool:
            if (std::holds_alternative<bool>(v)) return 4;
            return std::holds_alternative<std::int64_t>(v) ? 2 : 0;
        case Base::Char:
            if (auto* s = std::get_if<std::string>(&v)) return s->size() == 1 ? 4 : 0;
            [[fallthrough]];
        case Base::Int16: case Base::UInt16: case Base::Int32: case Base::UInt32: case Base::Int64: case Base::UInt64:
            if (std::holds_alternative<std::int64_t>(v)) return 4;
            if (std::holds_alternative<bool>(v)) return 2;
            if (auto* d = std::get_if<double>(&v)) return integral(*d) ? 1 : 0;
            return 0;
        case Base::Float: case Base::Double:
            if (std::holds_alternative<double>(v)) return 4;
            if (std::holds_alternative<std::int64_t>(v)) return 3;
            return std::holds_alternative<bool>(v) ? 1 : 0;
        case Base::Complex:
            if (std::holds_alternative<std::complex<double>>(v)) return 4;
            return std::holds_alternative<double>(v) || std::holds_alternative<std::int64_t>(v) ? 2 : 0;
        case Base::String:
            if (std::holds_alternative<std::string>(v)) return 4;
            return o && o->kind() == Object::Kind::String ? 4 : 0;
        case Base::Image:
            if (null) return t.by_reference() ? 4 : 1;
            if (!o || o->kind() != Object::Kind::Image) return 0;
            switch (t.image_class) {
                case ImageClass::Any: return 3;
                // The pointer classes only steer overloads: like the host's
                // interpreter, any image is passed, and the handler judges its type.
                case ImageClass::Complex: return is_complex_type(static_cast<const Image*>(o)->data_type) ? 4 : 1;
                case ImageClass::Real: return is_complex_type(static_cast<const Image*>(o)->data_type) ? 1 : 4;
            }
            return 0;
        case Base::TagGroup:
            if (null) return t.by_reference() ? 4 : 1;
            return o && o->kind() == Object::Kind::TagGroup ? 4 : 0;
        case Base::Object:
            if (null) return 1;
            return o ? 3 : 0;
    }
    return 0;
}

[[noreturn]] void call_error(const ScriptFunction& f, std::size_t i, const std::string& what) {
    const Parameter& p = f.signature.parameters[i];
    throw ScriptError("Argument " + std::to_string(i + 1) + " (" + type_text(p.type) +
                          (p.name.empty() ? "" : " " + p.name) + ") of " + f.signature.name + ": " + what,
                      f.signature.name);
}

std::int64_t integer_value(const ScriptFunction& f, std::size_t i, const Value& v) {
    if (auto* n = std::get_if<std::int64_t>(&v)) return *n;
    if (auto* b = std::get_if<bool>(&v)) return *b ? 1 : 0;
    if (auto* s = std::get_if<std::string>(&v)) return static_cast<unsigned char>((*s)[0]);
    const double d = std::get<double>(v);
    if (d < -9.2233720368547758e18 || d >= 9.2233720368547758e18)
        call_error(f, i, std::to_string(d) + " is out of the range of " + f.signature.parameters[i].type.name + ".");
    return static_cast<std::int64_t>(d);
}

template <class I>
I in_range(const ScriptFunction& f, std::size_t i, std::int64_t n) {
    if constexpr (std::is_same_v<I, std::uint64_t>) {
        if (n < 0) call_error(f, i, std::to_string(n) + " is out of the range of " + f.signature.parameters[i].type.name + ".");
    } else {
        if (n < std::int64_t(std::numeric_limits<I>::min()) || n > std::int64_t(std::numeric_limits<I>::max()))
            call_error(f, i, std::to_string(n) + " is out of the range of " + f.signature.parameters[i].type.name +
                                 " (" + std::to_string(std::int64_t(std::numeric_limits<I>::min())) + " to " +
                                 std::to_string(std::int64_t(std::numeric_limits<I>::max())) + ").");
    }
    return static_cast<I>(n);
}

double real_value(const Value& v) {
    if (auto* d = std::get_if<double>(&v)) return *d;
    if (auto* n = std::get_if<std::int64_t>(&v)) return double(*n);
    return std::get<bool>(v) ? 1.0 : 0.0;
}

KixObject* object_token(const Value& v) {
    if (auto* p = std::get_if<ObjectPtr>(&v)) return token(p->get());
    return nullptr;
}

// Objects the host made or retained for one call, released when it ends.
struct Owned {
    KixObject* items[kMaxParameters];
    std::size_t n = 0;
    void add(KixObject* t) { items[n++] = t; }
    ~Owned() {
        for (std::size_t i = 0; i < n; ++i)
            if (items[i]) object(items[i])->release();
    }
};

// The C value of argument i; by-reference object slots receive a reference
// of their own (the script variable's), which the call may replace.
void convert(const ScriptFunction& f, std::size_t i, const Value& v, Slot& s, Owned& owned) {
    const Type& t = f.signature.parameters[i].type;
    switch (t.base) {
        case Base::Bool: s.b = std::holds_alternative<bool>(v) ? std::get<bool>(v) : integer_value(f, i, v) != 0; break;
        case Base::Char: s.c = static_cast<char>(in_range<std::int8_t>(f, i, integer_value(f, i, v))); break;
        case Base::Int16: s.i16 = in_range<std::int16_t>(f, i, integer_value(f, i, v)); break;
        case Base::UInt16: s.u16 = in_range<std::uint16_t>(f, i, integer_value(f, i, v)); break;
        case Base::Int32: s.i32 = in_range<std::int32_t>(f, i, integer_value(f, i, v)); break;
        case Base::UInt32: s.u32 = in_range<std::uint32_t>(f, i, integer_value(f, i, v)); break;
        case Base::Int64: s.i64 = integer_value(f, i, v); break;
        case Base::UInt64: s.u64 = in_range<std::uint64_t>(f, i, integer_value(f, i, v)); break;
        case Base::Float: s.f = static_cast<float>(real_value(v)); break;
        case Base::Double: s.d = real_value(v); break;
        case Base::Complex:
            if (auto* z = std::get_if<std::complex<double>>(&v)) {
                s.z[0] = z->real();
                s.z[1] = z->imag();
            } else {
                s.z[0] = real_value(v);
                s.z[1] = 0.0;
            }
            break;
        case Base::String:
            if (auto* str = std::get_if<std::string>(&v)) {
                s.t = new_string(*str);
                if (!t.by_reference()) owned.add(s.t);
            } else {
                s.t = object_token(v);
                if (t.by_reference() && s.t) object(s.t)->retain();
            }
            break;
        case Base::Image: case Base::TagGroup: case Base::Object:
            s.t = object_token(v);
            if (t.by_reference() && s.t) object(s.t)->retain();
            break;
        case Base::Void: s.p = nullptr; break;
    }
}

// The final value of a by-reference argument; object slots hand their reference over.
Value take_back(const Type& t, Slot& s) {
    switch (t.base) {
        case Base::Bool: return s.b;
        case Base::Char: return std::int64_t(s.c);
        case Base::Int16: return std::int64_t(s.i16);
        case Base::UInt16: return std::int64_t(s.u16);
        case Base::Int32: return std::int64_t(s.i32);
        case Base::UInt32: return std::int64_t(s.u32);
        case Base::Int64: return s.i64;
        case Base::UInt64: return std::int64_t(s.u64);
        case Base::Float: return double(s.f);
        case Base::Double: return s.d;
        case Base::Complex: return std::complex<double>(s.z[0], s.z[1]);
        case Base::String: {
            ObjectPtr str = adopt(std::exchange(s.t, nullptr));
            if (!str) return std::string();
            if (str->kind() == Object::Kind::String) return static_cast<String&>(*str).text;
            return str;
        }
        case Base::Image: case Base::TagGroup: case Base::Object: {
            ObjectPtr obj = adopt(std::exchange(s.t, nullptr));
            if (!obj) return NullImage{};
            return obj;
        }
        case Base::Void: break;
    }
    return std::monostate{};
}

Value result_value(const Type& t, Result& r) {
    if (t.pointer) return std::int64_t(reinterpret_cast<std::intptr_t>(r.t));
    switch (t.base) {
        case Base::Void: return std::monostate{};
        case Base::Bool: return static_cast<std::uint8_t>(r.word) != 0;
        case Base::Char: return std::int64_t(static_cast<char>(r.word));
        case Base::Int16: return std::int64_t(static_cast<std::int16_t>(r.word));
        case Base::UInt16: return std::int64_t(static_cast<std::uint16_t>(r.word));
        case Base::Int32: return std::int64_t(static_cast<std::int32_t>(r.word));
        case Base::UInt32: return std::int64_t(static_cast<std::uint32_t>(r.word));
        case Base::Int64: return r.i64;
        case Base::UInt64: return std::int64_t(r.u64);
        case Base::Float: return double(r.f);
        case Base::Double: return r.d;
        case Base::Complex: return std::complex<double>(r.z[0], r.z[1]);
        case Base::String: {
            ObjectPtr s = adopt(r.t);
            if (!s) return std::string();
            if (s->kind() == Object::Kind::String) return static_cast<String&>(*s).text;
            return s;
        }
        case Base::Image: case Base::TagGroup: case Base::Object: {
            ObjectPtr o = adopt(r.t);
            if (!o) return NullImage{};
            return o;
        }
    }
    return std::monostate{};
}

void release_result(const Type& t, Result& r) {
    if (!t.pointer && t.is_object() && r.t) object(r.t)->release();
}

}  // namespace

PendingError*& pending_error_slot() { return tPending; }
bool in_script_call() { return tCallDepth > 0; }

ffi_type* ffi_type_of(const Type& t) {
    if (t.pointer) return &ffi_type_pointer;
    switch (t.base) {
        case Base::Void: return &ffi_type_void;
        case Base::Bool: return &ffi_type_uint8;
        case Base::Char: return &ffi_type_sint8;
        case Base::Int16: return &ffi_type_sint16;
        case Base::UInt16: return &ffi_type_uint16;
        case Base::Int32: return &ffi_type_sint32;
        case Base::UInt32: return &ffi_type_uint32;
        case Base::Int64: return &ffi_type_sint64;
        case Base::UInt64: return &ffi_type_uint64;
        case Base::Float: return &ffi_type_float;
        case Base::Double: return &ffi_type_double;
        case Base::Complex: return complex_type();
        case Base::String: case Base::Image: case Base::TagGroup: case Base::Object: return &ffi_type_pointer;
    }
    return &ffi_type_void;
}

void prepare_cif(const Signature& sig, ffi_cif& cif, std::vector<ffi_type*>& atypes) {
    atypes.clear();
    for (const Parameter& p : sig.parameters) atypes.push_back(ffi_type_of(p.type));
    if (ffi_prep_cif(&cif, FFI_DEFAULT_ABI, static_cast<unsigned>(atypes.size()), ffi_type_of(sig.result),
                     atypes.data()) != FFI_OK)
        throw SignatureError("libffi cannot call \"" + sig.text + "\"");
}

int Registry::add(const char* text, void* entry, std::string* why) {
    auto refuse = [&](int status, std::string reason) {
        if (why) *why = std::move(reason);
        return status;
    };
    if (text == nullptr || entry == nullptr) return refuse(1, "no signature or no entry point");
    // A script call holds the registry; functions are added from entry points only.
    if (in_script_call()) return refuse(4, "script functions cannot be added during a script call");
    ScriptFunction f;
    try {
        f.signature = parse_signature(text);
        if (f.signature.variadic) return refuse(2, "a script function cannot be variadic");
        if (f.signature.parameters.size() > kMaxParameters) return refuse(2, "too many parameters");
        for (const Parameter& p : f.signature.parameters) {
            if (p.type.base == Base::Void) return refuse(2, "a parameter of type void *");
            if (p.type.by_reference()) f.has_by_ref = true;
        }
        if (f.signature.result.pointer) return refuse(2, "a script function cannot return a pointer");
    } catch (const SignatureError& e) {
        return refuse(2, e.what());
    }
    f.entry = entry;
    std::unique_lock lock(mutex_);
    for (const std::string& s : texts_)
        if (s == f.signature.text) return refuse(3, "the signature is registered already");
    ScriptFunction& stored = functions_.emplace_back(std::move(f));
    prepare_cif(stored.signature, stored.cif, stored.atypes);
    texts_.push_back(stored.signature.text);
    by_name_[stored.signature.name].push_back(&stored);
    return 0;
}

void Registry::clear() {
    std::unique_lock lock(mutex_);
    by_name_.clear();
    texts_.clear();
    functions_.clear();
}

const ScriptFunction& Registry::resolve(std::string_view name, const std::vector<Value>& args) const {
    auto it = by_name_.find(name);
    if (it == by_name_.end())
        throw ScriptError("There is no script function named " + std::string(name) + ".", std::string(name));
    const ScriptFunction* best = nullptr;
    int best_score = 0;
    for (const ScriptFunction* f : it->second) {
        const auto& params = f->signature.parameters;
        if (params.size() != args.size()) continue;
        int total = 1;
        for (std::size_t i = 0; i < params.size() && total > 0; ++i) {
            const int s = score(params[i].type, args[i]);
            total = s == 0 ? 0 : total + s;
        }
        if (total > best_score) {
            best = f;
            best_score = total;
        }
    }
    if (best) return *best;
    std::string message = "No signature of " + std::string(name) + " takes (";
    for (std::size_t i = 0; i < args.size(); ++i) message += (i ? ", " : "") + std::string(value_text(args[i]));
    message += "). Its signatures:";
    for (const ScriptFunction* f : it->second) message += "\n  " + f->signature.text;
    throw ScriptError(message, std::string(name));
}

CallResult Registry::call(std::string_view name, std::vector<Value>& args) const {
    std::shared_lock lock(mutex_);
    const ScriptFunction& f = resolve(name, args);
    const std::size_t n = args.size();

    Slot slots[kMaxParameters];
    Slot* refs[kMaxParameters];
    void* values[kMaxParameters];
    Owned owned;
    std::size_t converted = 0;
    // On any failure the by-reference references taken so far go back.
    struct SlotGuard {
        const ScriptFunction& f;
        Slot* slots;
        std::size_t& count;
        bool armed = true;
        ~SlotGuard() {
            if (!armed) return;
            for (std::size_t i = 0; i < count; ++i) {
                const Type& t = f.signature.parameters[i].type;
                if (t.by_reference() && t.is_object() && slots[i].t) object(slots[i].t)->release();
            }
        }
    } guard{f, slots, converted};

    for (std::size_t i = 0; i < n; ++i) {
        convert(f, i, args[i], slots[i], owned);
        ++converted;
        if (f.signature.parameters[i].type.by_reference()) {
            refs[i] = &slots[i];
            values[i] = &refs[i];
        } else {
            values[i] = &slots[i];
        }
    }

    Result r{};
    PendingError pending;
    PendingError* previous = std::exchange(tPending, &pending);
    ++tCallDepth;
    ffi_call(const_cast<ffi_cif*>(&f.cif), FFI_FN(f.entry), &r, values);
    --tCallDepth;
    tPending = previous;

    if (pending.set) {
        release_result(f.signature.result, r);
        throw ScriptError(pending.message, pending.context);
    }
    CallResult out;
    out.result = result_value(f.signature.result, r);
    out.signature = f.signature.text;
    if (f.has_by_ref) {
        guard.armed = false;
        for (std::size_t i = 0; i < n; ++i) {
            const Type& t = f.signature.parameters[i].type;
            if (!t.by_reference()) continue;
            out.by_ref.push_back(i);
            args[i] = take_back(t, slots[i]);
        }
    }
    return out;
}

}  // namespace kixhost::detail
