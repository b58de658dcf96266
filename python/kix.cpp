// _kix: the reference host seen from Python.  Host images become numpy views
// of their own pixels, script values cross in both directions through one
// conversion each way, and a script call runs without the GIL so that Python
// threads can call the host side by side.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "host/files/files.hpp"
#include "host/host.hpp"

namespace py = pybind11;
using kixhost::Host;
using kixhost::Image;
using kixhost::ImagePtr;
using kixhost::Object;
using kixhost::ObjectPtr;
using kixhost::TagGroup;
using kixhost::TagGroupPtr;
using kixhost::Value;

namespace {

// ------------------------------------------------------------ pixel types
// Host pixel-type code <-> numpy dtype (kind, item size).  The first row that
// matches a dtype wins, so RGB (4 bytes a pixel) reads as uint32 but a uint32
// array becomes code 11.
using vorn::dm::kPixelTypes;

py::dtype dtype_of(int code) {
    if (const vorn::dm::PixelType* t = vorn::dm::pixel_type(code))
        return py::dtype(std::string(1, t->kind) + std::to_string(t->bytes));
    throw py::type_error("host pixel type " + std::to_string(code) + " has no numpy dtype");
}

int code_of(const py::dtype& dt) {
    for (const vorn::dm::PixelType& t : kPixelTypes)
        if (t.code != vorn::dm::kRGB && t.kind == dt.kind() && t.bytes == dt.itemsize()) return t.code;
    throw py::type_error("no host pixel type for numpy dtype " + py::str(py::object(dt)).cast<std::string>() +
                         "; use int8, uint8, int16, uint16, int32, uint32, float32, float64, "
                         "complex64, complex128 or bool, or pass data_type=");
}

// Host texts are bytes; undecodable ones survive the round trip to Python and back.
py::str pystr(const std::string& s) {
    return py::reinterpret_steal<py::str>(PyUnicode_DecodeUTF8(s.data(), s.size(), "surrogateescape"));
}
std::string cstr(py::handle s) {
    py::bytes b = py::reinterpret_steal<py::bytes>(PyUnicode_AsEncodedString(s.ptr(), "utf-8", "surrogateescape"));
    if (!b) throw py::error_already_set();
    return b;
}

// ------------------------------------------------------------ wrappers
struct PyHost {
    std::unique_ptr<Host> host;
};

// A host image; keeps its host alive as long as Python holds the image or a
// numpy view of it.
struct PyImage {
    ImagePtr image;
    py::object host;
};

// Any other script object (e.g. a lock): passed back as it came.
struct PyToken {
    ObjectPtr object;
    py::object host;
};

Host& host_of(py::handle self) { return *self.cast<PyHost&>().host; }

// Host numbering is x first; Python's is numpy's, x last.
template <class V>
std::vector<std::int64_t> reversed(const V& v) {
    return std::vector<std::int64_t>(v.rbegin(), v.rend());
}

std::size_t axis_index(const Image& im, long axis) {
    const long n = static_cast<long>(im.dims.size());
    if (axis < -n || axis >= n) throw py::index_error("axis " + std::to_string(axis) + " out of range");
    return static_cast<std::size_t>(n - 1 - (axis < 0 ? axis + n : axis));
}

// ------------------------------------------------------ Python -> script value
TagGroupPtr to_tag_group(py::handle o, Host& host);

TagGroup::Value to_tag_value(py::handle o, Host& host) {
    if (o.is_none()) return std::monostate{};
    if (PyBool_Check(o.ptr())) return o.ptr() == Py_True;
    if (PyLong_Check(o.ptr())) {
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(o.ptr(), &overflow);
        if (overflow) throw py::value_error("integer " + py::str(o).cast<std::string>() + " is too large for a tag");
        if (v >= INT32_MIN && v <= INT32_MAX) return static_cast<std::int32_t>(v);
        return static_cast<std::int64_t>(v);
    }
    if (PyFloat_Check(o.ptr())) return PyFloat_AS_DOUBLE(o.ptr());
    if (PyUnicode_Check(o.ptr())) return cstr(o);
    if (PyDict_Check(o.ptr()) || PyList_Check(o.ptr()) || PyTuple_Check(o.ptr())) return to_tag_group(o, host);
    throw py::type_error("a tag cannot hold a " + std::string(Py_TYPE(o.ptr())->tp_name));
}

// dict -> tag group, list or tuple -> tag list.
TagGroupPtr to_tag_group(py::handle o, Host& host) {
    const bool list = !PyDict_Check(o.ptr());
    TagGroupPtr g = host.new_tag_group(list);
    if (list) {
        for (py::handle v : o) g->tags.push_back({"", to_tag_value(v, host)});
    } else {
        for (auto [k, v] : o.cast<py::dict>()) {
            if (!PyUnicode_Check(k.ptr())) throw py::type_error("tag labels are strings");
            g->tags.push_back({cstr(k), to_tag_value(v, host)});
        }
    }
    return g;
}

Value to_value(py::handle o, Host& host) {
    PyObject* p = o.ptr();
    if (p == Py_None) return kixhost::NullImage{};
    if (PyBool_Check(p)) return p == Py_True;
    if (PyLong_Check(p)) {
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(p, &overflow);
        if (overflow) throw py::value_error("integer " + py::str(o).cast<std::string>() + " is too large for a script");
        return static_cast<std::int64_t>(v);
    }
    if (PyFloat_Check(p)) return PyFloat_AS_DOUBLE(p);
    if (PyComplex_Check(p)) return std::complex<double>(PyComplex_RealAsDouble(p), PyComplex_ImagAsDouble(p));
    if (PyUnicode_Check(p)) return cstr(o);
    if (py::isinstance<PyImage>(o)) return ObjectPtr(o.cast<PyImage&>().image);
    if (py::isinstance<PyToken>(o)) return o.cast<PyToken&>().object;
    if (PyDict_Check(p) || PyList_Check(p) || PyTuple_Check(p)) return ObjectPtr(to_tag_group(o, host));
    // numpy scalars: as the Python number they hold.
    static const py::handle np_generic = py::object(py::module_::import("numpy").attr("generic")).release();
    if (py::isinstance(o, np_generic)) {
        py::object v = o.attr("item")();
        if (!py::isinstance(v, np_generic)) return to_value(v, host);
    }
    if (py::isinstance<py::array>(o))
        throw py::type_error("a numpy array is not a host image; make one with h.image(array)");
    throw py::type_error(std::string("a script function takes no ") + Py_TYPE(p)->tp_name);
}

// ------------------------------------------------------ script value -> Python
py::object tags_to_python(const TagGroup& g) {
    auto item = [](const TagGroup::Value& v) -> py::object {
        return std::visit(
            [](const auto& x) -> py::object {
                using X = std::decay_t<decltype(x)>;
                if constexpr (std::is_same_v<X, std::monostate>) return py::none();
                else if constexpr (std::is_same_v<X, std::string>) return pystr(x);
                else if constexpr (std::is_same_v<X, TagGroupPtr>) return x ? tags_to_python(*x) : py::none();
                else return py::cast(x);
            },
            v);
    };
    if (g.is_list) {
        py::list out;
        for (const auto& t : g.tags) out.append(item(t.value));
        return out;
    }
    py::dict out;
    for (const auto& t : g.tags) out[pystr(t.label)] = item(t.value);
    return out;
}

py::object to_python(const Value& v, const py::object& host) {
    return std::visit(
        [&](const auto& x) -> py::object {
            using X = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<X, std::monostate> || std::is_same_v<X, kixhost::NullImage>) {
                return py::none();
            } else if constexpr (std::is_same_v<X, std::string>) {
                return pystr(x);
            } else if constexpr (std::is_same_v<X, ObjectPtr>) {
                if (!x) return py::none();
                switch (x->kind()) {
                    case Object::Kind::Image:
                        return py::cast(PyImage{ImagePtr::share(static_cast<Image*>(x.get())), host});
                    case Object::Kind::TagGroup: return tags_to_python(static_cast<const TagGroup&>(*x));
                    case Object::Kind::String: return pystr(static_cast<const kixhost::String&>(*x).text);
                    default: return py::cast(PyToken{x, host});
                }
            } else {
                return py::cast(x);
            }
        },
        v);
}

// ------------------------------------------------------------ calls
// The result, then the final values of the by-reference arguments; a lone
// result without by-reference arguments comes back bare.
py::object call(py::object self, const std::string& name, py::args args, bool library) {
    Host& host = host_of(self);
    std::vector<Value> values;
    values.reserve(args.size());
    for (py::handle a : args) values.push_back(to_value(a, host));
    kixhost::CallResult r;
    {
        py::gil_scoped_release unlocked;
        r = library ? host.library_call(name, values) : host.call(name, values);
    }
    if (r.by_ref.empty()) return to_python(r.result, self);
    const bool has_result = !std::holds_alternative<std::monostate>(r.result);
    py::tuple out(r.by_ref.size() + (has_result ? 1 : 0));
    std::size_t k = 0;
    if (has_result) out[k++] = to_python(r.result, self);
    for (std::size_t i : r.by_ref) out[k++] = to_python(values.at(i), self);
    return out;
}

// ------------------------------------------------------------ images
py::array numpy_view(py::object self) {
    const Image& im = *self.cast<PyImage&>().image;
    return py::array(dtype_of(im.data_type), reversed(im.dims), reversed(im.pitches), im.data(), self);
}

py::object wrap(ImagePtr im, py::object host) { return py::cast(PyImage{std::move(im), std::move(host)}); }

py::object new_image(py::object self, const std::vector<std::int64_t>& shape, int data_type, const std::string& name) {
    return wrap(host_of(self).new_image(data_type, reversed(shape), name), self);  // zeroed by the host
}

// A host image holding a copy of any array (any strides, byte order or
// dtype that numpy can cast to the chosen pixel type).
py::object image_from(py::object self, py::object array, const std::string& name, py::object data_type) {
    py::array a = py::array::ensure(array);
    if (!a) throw py::type_error("h.image takes an array");
    if (a.ndim() < 1 || a.ndim() > 5) throw py::value_error("a host image has 1 to 5 dimensions, not " + std::to_string(a.ndim()));
    const int code = data_type.is_none() ? code_of(a.dtype()) : data_type.cast<int>();
    std::vector<std::int64_t> shape(a.shape(), a.shape() + a.ndim());
    py::object img = new_image(self, shape, code, name);
    numpy_view(img)[py::ellipsis()] = a;
    return img;
}

py::dict calibration(const kixhost::Calibration& c) {
    py::dict d;
    d["origin"] = c.origin;
    d["scale"] = c.scale;
    d["units"] = pystr(c.units);
    d["displayed_calibrated"] = c.displayed_calibrated;
    return d;
}

}  // namespace

PYBIND11_MODULE(_kix, m) {
    m.def("pixel_types", [] {
        py::dict out;
        for (const vorn::dm::PixelType& t : kPixelTypes)
            if (t.code != vorn::dm::kRGB) out[py::int_(t.code)] = dtype_of(t.code);
        return out;
    }, "numpy dtype of each host pixel-type code (RGB has none).");
    m.def("host_function_calls", &kixhost::host_function_calls,
          "Host-function calls made by modules since the process started: the round trips a call costs.");
    m.doc() = "The kix module in its reference host";

    // kix.ScriptError: str(e) is the module's message, e.context the handler's context name.
    static PyObject* script_error = PyErr_NewExceptionWithDoc(
        "kix.ScriptError", "A script function failed; str(e) is its message, e.context its handler.",
        PyExc_Exception, nullptr);
    py::handle(script_error).attr("context") = py::none();
    m.add_object("ScriptError", py::handle(script_error));
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const kixhost::ScriptError& e) {
            py::object err = py::handle(script_error)(pystr(e.what()));
            err.attr("context") = pystr(e.context());
            PyErr_SetObject(script_error, err.ptr());
        }
    });

    // kix.FileError: a file that cannot be read or written (an OSError; the message names the file).
    static PyObject* file_error = PyErr_NewExceptionWithDoc(
        "kix.FileError", "An image file could not be read or written; the message names the file.",
        PyExc_OSError, nullptr);
    m.add_object("FileError", py::handle(file_error));
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const kixhost::files::FileError& e) {
            PyErr_SetObject(file_error, pystr(e.what()).ptr());
        }
    });

    py::class_<kixhost::ReportedError>(m, "ReportedError")
        .def_readonly("kind", &kixhost::ReportedError::kind)
        .def_readonly("code", &kixhost::ReportedError::code)
        .def_property_readonly("message", [](const kixhost::ReportedError& e) { return pystr(e.message); })
        .def_property_readonly("context", [](const kixhost::ReportedError& e) { return pystr(e.context); })
        .def("__repr__", [](const kixhost::ReportedError& e) {
            return py::str("ReportedError(kind={}, code={}, message={!r}, context={!r})")
                .format(e.kind, e.code, pystr(e.message), pystr(e.context));
        });

    py::class_<PyToken>(m, "Object", "A script object other than an image, tag group or string.");

    py::class_<PyImage>(m, "Image", "A host image.  numpy() is a view of its pixels.")
        .def("numpy", &numpy_view, "The pixels as a numpy array without copying (x is the last axis).")
        .def("__array__", [](py::object self, py::object dtype, py::object copy) {
                py::object a = numpy_view(self);
                if (!dtype.is_none()) return a.attr("astype")(dtype, py::arg("copy") = copy.is_none() ? false : copy.cast<bool>());
                return copy.is_none() || !copy.cast<bool>() ? a : a.attr("copy")();
            }, py::arg("dtype") = py::none(), py::arg("copy") = py::none())
        .def_property_readonly("data_type", [](const PyImage& i) { return i.image->data_type; })
        .def_property_readonly("shape", [](const PyImage& i) { return py::tuple(py::cast(reversed(i.image->dims))); })
        .def_property_readonly("ndim", [](const PyImage& i) { return i.image->dims.size(); })
        .def_property_readonly("is_subarea", [](const PyImage& i) { return i.image->is_subarea; })
        .def_property_readonly("data_changed", [](const PyImage& i) { return i.image->data_changed.load(); },
                               "How often the module marked the pixels changed (ImageDataChanged).")
        .def_property("name", [](const PyImage& i) { return pystr(i.image->name); },
                      [](PyImage& i, py::handle s) { i.image->name = cstr(s); })
        .def_property_readonly("tags", [](const PyImage& i) -> py::object {
                return i.image->tags ? tags_to_python(*i.image->tags) : py::dict();
            }, "The image's tag group as a dict (a copy).")
        .def("set_tag", [](PyImage& i, const std::string& path, py::handle value) {
                if (!i.image->tags) i.image->tags = host_of(i.host).new_tag_group(false);
                i.image->tags->set(path, to_tag_value(value, host_of(i.host)));
            }, py::arg("path"), py::arg("value"), "Set a tag; ':' separates the levels of the path.")
        .def_property_readonly("calibrations", [](const PyImage& i) {
                py::list out;
                for (auto it = i.image->calibrations.rbegin(); it != i.image->calibrations.rend(); ++it)
                    out.append(calibration(*it));
                return out;
            }, "Calibration of each axis, in the order of shape.")
        .def("set_calibration", [](PyImage& i, long axis, float origin, float scale, const std::string& units,
                                   bool displayed) {
                auto& cal = i.image->calibrations;
                if (cal.size() < i.image->dims.size()) cal.resize(i.image->dims.size());
                cal[axis_index(*i.image, axis)] = {origin, scale, units, displayed};
            }, py::arg("axis"), py::arg("origin") = 0.0f, py::arg("scale") = 1.0f, py::arg("units") = "",
            py::arg("displayed_calibrated") = true, "Calibrate one axis (numbered as in shape).")
        .def_property_readonly("intensity_calibration", [](const PyImage& i) { return calibration(i.image->intensity); },
            "Calibration of the pixel values: origin, scale, units.")
        .def("set_intensity_calibration", [](PyImage& i, float origin, float scale, const std::string& units) {
                i.image->intensity = {origin, scale, units, true};
            }, py::arg("origin") = 0.0f, py::arg("scale") = 1.0f, py::arg("units") = "")
        .def("save", [](const PyImage& i, const std::string& path) {
                py::gil_scoped_release unlocked;
                kixhost::files::save_image(*i.image, path);
            }, py::arg("path"),
            "Write the image: .tif/.tiff (integer and real pixels, with the calibration) or .npy (every type).")
        .def("__repr__", [](const PyImage& i) {
            return py::str("<kix.Image {!r} type {} shape {}>")
                .format(pystr(i.image->name), i.image->data_type, py::tuple(py::cast(reversed(i.image->dims))));
        });

    py::class_<PyHost>(m, "Host", "A reference host with the kix module loaded and started.")
        .def(py::init([](const std::string& module_path, std::uint32_t host_version, bool register_floating_windows,
                         bool error_manager, bool output_window, bool verbose) {
                 kixhost::HostOptions o;
                 o.module_path = module_path;
                 o.host_version = host_version;
                 o.register_floating_windows = register_floating_windows;
                 o.error_manager = error_manager;
                 o.output_window = output_window;
                 o.verbose = verbose;
                 return PyHost{std::make_unique<Host>(o)};
             }),
             py::kw_only(), py::arg("module_path") = "", py::arg("host_version") = kixhost::HostOptions{}.host_version,
             py::arg("register_floating_windows") = true, py::arg("error_manager") = true,
             py::arg("output_window") = true, py::arg("verbose") = false)
        .def("call", [](py::object self, const std::string& name, py::args args) { return call(self, name, args, false); },
             "Call a registered script function by name.")
        .def("library_call", [](py::object self, const std::string& name, py::args args) { return call(self, name, args, true); },
             "Call a library-only function (never registered with the host) by name.")
        .def("signatures", [](py::object self) { return host_of(self).signatures(); })
        .def("library_signatures", [](py::object self) { return host_of(self).library_signatures(); })
        .def("instruction_set", [](py::object self) { return host_of(self).instruction_set(); },
             "The instruction set the module's vector bodies use on this processor.")
        .def("output", [](py::object self) { return pystr(host_of(self).output()); })
        .def("errors", [](py::object self) { return host_of(self).errors(); })
        .def("image", &image_from, py::arg("array"), py::kw_only(), py::arg("name") = "", py::arg("data_type") = py::none(),
             "A new host image holding a copy of the array.")
        .def("new_image", &new_image, py::arg("shape"), py::arg("data_type"), py::kw_only(), py::arg("name") = "",
             "A new zeroed host image of any pixel type code.")
        .def("subarea", [](py::object self, const PyImage& parent, const std::vector<std::int64_t>& origin,
                           const std::vector<std::int64_t>& shape) {
                 return wrap(host_of(self).subarea(parent.image, reversed(origin), reversed(shape)), self);
             }, py::arg("image"), py::arg("origin"), py::arg("shape"),
             "An image sharing the parent's pixels from origin on (both in the order of shape).")
        .def("open", [](py::object self, const std::string& path) {
                 ImagePtr img;
                 {
                     py::gil_scoped_release unlocked;
                     img = kixhost::files::open_image(path);
                 }
                 return wrap(std::move(img), self);
             }, py::arg("path"),
             "Open a DM3/DM4, TIFF, MRC or .npy file (chosen by content) as a host image with its calibration and tags.")
        .def("open_raw", [](py::object self, const std::string& path, const std::vector<std::int64_t>& shape,
                            int data_type, std::uint64_t offset, bool big_endian) {
                 kixhost::files::RawLayout layout{reversed(shape), data_type, offset, big_endian};
                 ImagePtr img;
                 {
                     py::gil_scoped_release unlocked;
                     img = kixhost::files::open_raw(path, layout);
                 }
                 return wrap(std::move(img), self);
             }, py::arg("path"), py::arg("shape"), py::arg("data_type"), py::kw_only(), py::arg("offset") = 0,
             py::arg("big_endian") = false,
             "Open headerless pixels: shape in numpy order, a host pixel-type code, the offset of the first pixel.")
        .def("shutdown", [](py::object self) { host_of(self).shutdown(); });
}
