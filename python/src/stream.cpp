// The stream object openstream() returns: BytesIO's reading interface
// (olefile's streams are BytesIO objects) over a native stream, which
// reads only what is asked for.
#include <string.h>

#include <algorithm>

#include "python/src/common.h"

namespace moxpy {

namespace {

// Copies smaller than this cost less than handing the GIL over and
// taking it back, so they keep it.
constexpr std::size_t kReleaseAtLeast = 16 * 1024;

Py_ssize_t sizeArgument(py::handle size) {
  if (size.is_none()) return -1;
  if (!PyIndex_Check(size.ptr())) {
    throw py::type_error(std::string("argument should be integer or None, not '") +
                         Py_TYPE(size.ptr())->tp_name + "'");
  }
  const Py_ssize_t n = PyNumber_AsSsize_t(size.ptr(), PyExc_OverflowError);
  if (n == -1 && PyErr_Occurred()) throw py::error_already_set();
  return n;
}

py::bytes newBytes(std::size_t size, char** data) {
  PyObject* b = PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(size));
  if (b == nullptr) throw py::error_already_set();
  *data = PyBytes_AS_STRING(b);
  return py::reinterpret_steal<py::bytes>(b);
}

py::bytes shrink(py::bytes bytes, std::size_t size) {
  if (static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr())) == size) return bytes;
  PyObject* b = bytes.release().ptr();
  if (_PyBytes_Resize(&b, static_cast<Py_ssize_t>(size)) != 0) throw py::error_already_set();
  return py::reinterpret_steal<py::bytes>(b);
}

}  // namespace

// The stream's lock.  One thread at a time moves a stream's position; a
// thread that has to wait for it does so without the GIL, or the thread
// holding the lock could never take the GIL back.
class PyStream::Busy {
 public:
  explicit Busy(PyStream& s) : lock_(s.mutex_, std::try_to_lock) {
    if (!lock_.owns_lock()) {
      py::gil_scoped_release release;
      lock_.lock();
    }
    s.live();
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

PyStream::PyStream(mox::Stream stream, std::shared_ptr<FileState> state, std::string nativeName,
                   bool throughMapping)
    : stream_(std::move(stream)), state_(std::move(state)), native_name_(std::move(nativeName)),
      through_mapping_(throughMapping) {}

void PyStream::live() const {
  if (closed_) throw py::value_error("I/O operation on closed file.");
}

std::size_t PyStream::readInto(char* out, std::size_t count) {
  std::size_t got = 0;
  try {
    // Files open for writing are for one thread at a time: their reads
    // keep the GIL, which serialises every call on the file.
    if (count >= kReleaseAtLeast && !state_->writable) {
      py::gil_scoped_release release;
      got = stream_.read(out, count);
    } else {
      got = stream_.read(out, count);
    }
  } catch (const mox::Error& e) {
    raise(e, state_->name, native_name_);
  }
  if (through_mapping_ && state_->source) state_->source->noteRead(got);
  return got;
}

py::bytes PyStream::read(py::handle size) {
  const Py_ssize_t wanted = sizeArgument(size);
  if (wanted < 0) return readAll();
  Busy busy(*this);
  const std::uint64_t end = stream_.size();
  const std::uint64_t at = stream_.tell();
  const std::uint64_t left = at < end ? end - at : 0;
  const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(left, static_cast<std::uint64_t>(wanted)));
  char* data = nullptr;
  py::bytes out = newBytes(count, &data);
  return shrink(std::move(out), count ? readInto(data, count) : 0);
}

py::bytes PyStream::readAll() {
  Busy busy(*this);
  const std::uint64_t end = stream_.size();
  const std::uint64_t at = stream_.tell();
  const std::uint64_t left = at < end ? end - at : 0;
  if (left > static_cast<std::uint64_t>(PY_SSIZE_T_MAX)) throw std::bad_alloc();
  const auto count = static_cast<std::size_t>(left);
  char* data = nullptr;
  py::bytes out = newBytes(count, &data);
  return shrink(std::move(out), count ? readInto(data, count) : 0);
}

std::size_t PyStream::readinto(py::buffer target) {
  Py_buffer view;
  if (PyObject_GetBuffer(target.ptr(), &view, PyBUF_WRITABLE | PyBUF_C_CONTIGUOUS) != 0) {
    throw py::error_already_set();
  }
  struct Release {
    Py_buffer* v;
    ~Release() { PyBuffer_Release(v); }
  } release{&view};
  Busy busy(*this);
  return view.len > 0 ? readInto(static_cast<char*>(view.buf), static_cast<std::size_t>(view.len)) : 0;
}

py::bytes PyStream::readline(py::handle size) {
  const Py_ssize_t limit = sizeArgument(size);
  Busy busy(*this);
  std::string line;
  char chunk[256];
  const std::uint64_t start = stream_.tell();
  for (;;) {
    std::size_t want = sizeof chunk;
    if (limit >= 0) want = std::min<std::size_t>(want, static_cast<std::size_t>(limit) - line.size());
    if (want == 0) break;
    const std::size_t got = readInto(chunk, want);
    if (got == 0) break;
    const char* newline = static_cast<const char*>(memchr(chunk, '\n', got));
    if (newline != nullptr) {
      line.append(chunk, static_cast<std::size_t>(newline - chunk) + 1);
      break;
    }
    line.append(chunk, got);
  }
  stream_.seek(static_cast<std::int64_t>(start + line.size()));
  return py::bytes(line);
}

py::list PyStream::readlines(py::handle hint) {
  const Py_ssize_t limit = sizeArgument(hint);
  py::list lines;
  std::size_t total = 0;
  for (;;) {
    py::bytes line = readline(py::none());
    const auto n = static_cast<std::size_t>(PyBytes_GET_SIZE(line.ptr()));
    if (n == 0) break;
    lines.append(line);
    total += n;
    if (limit > 0 && total >= static_cast<std::size_t>(limit)) break;
  }
  return lines;
}

py::bytes PyStream::getvalue() {
  Busy busy(*this);
  const std::uint64_t at = stream_.tell();
  const std::uint64_t end = stream_.size();
  if (end > static_cast<std::uint64_t>(PY_SSIZE_T_MAX)) throw std::bad_alloc();
  char* data = nullptr;
  py::bytes out = newBytes(static_cast<std::size_t>(end), &data);
  stream_.seek(0);
  std::size_t got = 0;
  try {
    got = end ? readInto(data, static_cast<std::size_t>(end)) : 0;
  } catch (...) {
    stream_.seek(static_cast<std::int64_t>(at));
    throw;
  }
  stream_.seek(static_cast<std::int64_t>(at));
  return shrink(std::move(out), got);
}

std::uint64_t PyStream::seek(std::int64_t offset, int whence) {
  Busy busy(*this);
  // BytesIO's rules: a negative absolute position is an error, a relative
  // one that would go below zero stops at zero.
  std::int64_t base = 0;
  switch (whence) {
    case 0:
      if (offset < 0) throw py::value_error("negative seek value " + std::to_string(offset));
      break;
    case 1: base = static_cast<std::int64_t>(stream_.tell()); break;
    case 2: base = static_cast<std::int64_t>(stream_.size()); break;
    default:
      throw py::value_error("invalid whence (" + std::to_string(whence) +
                            ", should be 0, 1 or 2)");
  }
  std::int64_t target = 0;
  if (__builtin_add_overflow(base, offset, &target)) throw py::value_error("seek position out of range");
  if (target < 0) target = 0;
  return stream_.seek(target);
}

std::uint64_t PyStream::tell() {
  Busy busy(*this);
  return stream_.tell();
}

bool PyStream::writable() {
  Busy busy(*this);
  return stream_.writable();
}

std::size_t PyStream::write(py::buffer data) {
  Py_buffer view;
  if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_C_CONTIGUOUS) != 0) throw py::error_already_set();
  struct Release {
    Py_buffer* v;
    ~Release() { PyBuffer_Release(v); }
  } release{&view};
  Busy busy(*this);
  if (!stream_.writable()) {
    PyErr_SetString(exceptions().unsupported.ptr(), "write: the file is open for reading");
    throw py::error_already_set();
  }
  try {
    stream_.write(view.buf, static_cast<std::size_t>(view.len));
  } catch (const mox::Error& e) {
    raise(e, state_->name, native_name_);
  }
  state_->modified = true;
  return static_cast<std::size_t>(view.len);
}

std::uint64_t PyStream::truncate(py::handle size) {
  Busy busy(*this);
  if (!stream_.writable()) {
    PyErr_SetString(exceptions().unsupported.ptr(), "truncate: the file is open for reading");
    throw py::error_already_set();
  }
  const Py_ssize_t n = sizeArgument(size);
  const std::uint64_t to = n < 0 ? stream_.tell() : static_cast<std::uint64_t>(n);
  try {
    stream_.set_size(to);
  } catch (const mox::Error& e) {
    raise(e, state_->name, native_name_);
  }
  state_->modified = true;
  return to;
}

void PyStream::close() {
  if (closed_) return;
  Busy busy(*this);
  closed_ = true;
  stream_ = mox::Stream();
}

std::uint64_t PyStream::size() {
  Busy busy(*this);
  return stream_.size();
}

std::string PyStream::name() {
  Busy busy(*this);
  return stream_.path();
}

void bindStream(py::module_& m) {
  py::class_<PyStream> cls(m, "OleStream",
                           "A binary file object over one stream, reading only what is asked for.");
  cls.def("read", &PyStream::read, py::arg("size") = py::none())
      .def("read1", &PyStream::read, py::arg("size") = py::none())
      .def("readall", &PyStream::readAll)
      .def("readinto", &PyStream::readinto, py::arg("buffer"))
      .def("readinto1", &PyStream::readinto, py::arg("buffer"))
      .def("readline", &PyStream::readline, py::arg("size") = py::none())
      .def("readlines", &PyStream::readlines, py::arg("hint") = py::none())
      .def("getvalue", &PyStream::getvalue)
      .def("seek", &PyStream::seek, py::arg("offset"), py::arg("whence") = 0)
      .def("tell", &PyStream::tell)
      .def("readable", [](PyStream& s) {
        if (s.closed()) throw py::value_error("I/O operation on closed file.");
        return true;
      })
      .def("seekable", [](PyStream& s) {
        if (s.closed()) throw py::value_error("I/O operation on closed file.");
        return true;
      })
      .def("writable", &PyStream::writable)
      .def("write", &PyStream::write, py::arg("data"))
      .def("truncate", &PyStream::truncate, py::arg("size") = py::none())
      .def("flush", [](PyStream& s) {
        if (s.closed()) throw py::value_error("I/O operation on closed file.");
      })
      .def("isatty", [](PyStream& s) {
        if (s.closed()) throw py::value_error("I/O operation on closed file.");
        return false;
      })
      .def("fileno", [](PyStream&) -> int {
        PyErr_SetString(exceptions().unsupported.ptr(), "fileno");
        throw py::error_already_set();
      })
      .def("close", &PyStream::close)
      .def_property_readonly("closed", &PyStream::closed)
      .def_property_readonly("size", &PyStream::size, "The stream's size in bytes.")
      .def_property_readonly("name", &PyStream::name, "The stream's path in the file.")
      .def("__enter__", [](py::object self) {
        if (self.cast<PyStream&>().closed()) throw py::value_error("I/O operation on closed file.");
        return self;
      })
      .def("__exit__", [](PyStream& s, py::args) { s.close(); })
      .def("__iter__", [](py::object self) {
        if (self.cast<PyStream&>().closed()) throw py::value_error("I/O operation on closed file.");
        return self;
      })
      .def("__next__", [](PyStream& s) {
        py::bytes line = s.readline(py::none());
        if (PyBytes_GET_SIZE(line.ptr()) == 0) throw py::stop_iteration();
        return line;
      });
}

}  // namespace moxpy
