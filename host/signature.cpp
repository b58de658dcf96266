#include "host/signature.hpp"

#include <array>
#include <utility>

namespace kixhost {

namespace {

struct Word {
    std::string_view word;
    Base base;
    ImageClass image_class;
};

constexpr std::array kWords{
    Word{"void", Base::Void, ImageClass::Any},
    Word{"bool", Base::Bool, ImageClass::Any},
    Word{"Boolean", Base::Bool, ImageClass::Any},
    Word{"char", Base::Char, ImageClass::Any},
    Word{"short", Base::Int16, ImageClass::Any},
    Word{"int16", Base::Int16, ImageClass::Any},
    Word{"sint16", Base::Int16, ImageClass::Any},
    Word{"ushort", Base::UInt16, ImageClass::Any},
    Word{"uint16", Base::UInt16, ImageClass::Any},
    Word{"long", Base::Int32, ImageClass::Any},
    Word{"int", Base::Int32, ImageClass::Any},
    Word{"int32", Base::Int32, ImageClass::Any},
    Word{"sint32", Base::Int32, ImageClass::Any},
    Word{"ulong", Base::UInt32, ImageClass::Any},
    Word{"uint32", Base::UInt32, ImageClass::Any},
    Word{"int64", Base::Int64, ImageClass::Any},
    Word{"sint64", Base::Int64, ImageClass::Any},
    Word{"uint64", Base::UInt64, ImageClass::Any},
    Word{"float", Base::Float, ImageClass::Any},
    Word{"double", Base::Double, ImageClass::Any},
    Word{"number", Base::Double, ImageClass::Any},
    Word{"complex", Base::Complex, ImageClass::Any},
    Word{"string", Base::String, ImageClass::Any},
    Word{"dm_string", Base::String, ImageClass::Any},
    Word{"ImageRef", Base::Image, ImageClass::Any},
    Word{"Image", Base::Image, ImageClass::Any},
    Word{"BasicImage", Base::Image, ImageClass::Any},
    Word{"RealImagePtr", Base::Image, ImageClass::Real},
    Word{"ComplexImagePtr", Base::Image, ImageClass::Complex},
    Word{"TagGroup", Base::TagGroup, ImageClass::Any},
    Word{"ScriptObject", Base::Object, ImageClass::Any},
    Word{"Throwable", Base::Object, ImageClass::Any},
    Word{"Object", Base::Object, ImageClass::Any},
};

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool is_ident_start(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool is_ident(char c) { return is_ident_start(c) || (c >= '0' && c <= '9'); }

class Parser {
public:
    explicit Parser(std::string_view text) : s_(text) {}

    Signature run() {
        Signature sig;
        sig.text = std::string(s_);
        blanks();
        sig.result = type();
        if (sig.result.pointer > 0 && sig.result.base != Base::Void)
            fail("a script function cannot return a pointer to " + sig.result.name);
        blanks();
        sig.name = std::string(ident("a function name"));
        blanks();
        expect('(');
        blanks();
        if (peek() == ')') {
            ++i_;
        } else {
            for (;;) {
                blanks();
                if (ellipsis()) {
                    sig.variadic = true;
                    blanks();
                    expect(')');
                    break;
                }
                Parameter p;
                p.type = type();
                blanks();
                if (is_ident_start(peek())) p.name = std::string(ident("a parameter name"));
                blanks();
                if (ellipsis()) {
                    sig.variadic = true;
                    blanks();
                }
                if (p.type.base == Base::Void && p.type.pointer == 0) {
                    // "( void )": no parameters
                    if (!sig.parameters.empty() || !p.name.empty() || sig.variadic)
                        fail("a parameter cannot be void");
                    expect(')');
                    break;
                }
                sig.parameters.push_back(std::move(p));
                if (sig.variadic) {
                    expect(')');
                    break;
                }
                const char c = peek();
                if (c == ',') {
                    ++i_;
                    continue;
                }
                expect(')');
                break;
            }
        }
        blanks();
        if (i_ != s_.size()) fail("nothing may follow the parameter list");
        return sig;
    }

private:
    std::string_view s_;
    std::size_t i_ = 0;

    [[noreturn]] void fail(const std::string& what) const {
        throw SignatureError("\"" + std::string(s_) + "\" is not a prototype: " + what + " (at character " +
                             std::to_string(i_ + 1) + ")");
    }
    char peek() const { return i_ < s_.size() ? s_[i_] : '\0'; }
    void blanks() {
        while (i_ < s_.size() && is_blank(s_[i_])) ++i_;
    }
    void expect(char c) {
        if (peek() != c) fail(std::string("expected '") + c + "'");
        ++i_;
    }
    bool ellipsis() {
        if (s_.substr(i_, 3) == "...") {
            i_ += 3;
            return true;
        }
        return false;
    }
    std::string_view ident(const char* what) {
        if (!is_ident_start(peek())) fail(std::string("expected ") + what);
        const std::size_t b = i_;
        while (i_ < s_.size() && is_ident(s_[i_])) ++i_;
        return s_.substr(b, i_ - b);
    }
    Type type() {
        const std::size_t at = i_;
        const std::string_view word = ident("a type");
        std::optional<Type> t = script_type(word);
        if (!t) {
            i_ = at;
            fail("unknown type '" + std::string(word) + "'");
        }
        for (;;) {
            blanks();
            if (peek() != '*') break;
            ++i_;
            ++t->pointer;
        }
        if (t->pointer > 1) fail("a pointer to a pointer is not a script type");
        return *t;
    }
};

}  // namespace

std::optional<Type> script_type(std::string_view word) {
    for (const Word& w : kWords) {
        if (w.word == word) {
            Type t;
            t.base = w.base;
            t.image_class = w.image_class;
            t.name = std::string(word);
            return t;
        }
    }
    return std::nullopt;
}

std::string type_text(const Type& t) { return t.pointer ? t.name + " *" : t.name; }

Signature parse_signature(std::string_view text) { return Parser(text).run(); }

}  // namespace kixhost
