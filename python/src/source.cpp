// Sources of bytes for files opened for reading, and the exceptions the
// module raises.
#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <new>

#include "python/src/common.h"

namespace moxpy {

namespace {

// Trimming gives back pages of large mappings only: small files stay
// resident, so nothing is read twice from the page cache for them.
constexpr std::uint64_t kTrimEvery = 32ull << 20;

}  // namespace

std::shared_ptr<Source> Source::read(int fd, std::uint64_t size) {
  if (size == 0 || size > SIZE_MAX) return nullptr;
  std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[static_cast<std::size_t>(size)]);
  if (!bytes) return nullptr;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = pread(fd, bytes.get() + done, static_cast<std::size_t>(size) - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return nullptr;  // changed under us, or unreadable: the native reader decides
    done += static_cast<std::size_t>(n);
  }
  std::shared_ptr<Source> s(new Source());
  s->data_ = bytes.get();
  s->size_ = static_cast<std::size_t>(size);
  s->owned_ = std::move(bytes);
  return s;
}

std::shared_ptr<Source> Source::map(int fd, std::uint64_t size) {
  if (size == 0 || size > SIZE_MAX) return nullptr;
  void* at = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_SHARED, fd, 0);
  if (at == MAP_FAILED) return nullptr;
  std::shared_ptr<Source> s(new Source());
  s->data_ = at;
  s->size_ = static_cast<std::size_t>(size);
  s->mapped_ = true;
  return s;
}

std::shared_ptr<Source> Source::buffer(py::handle owner) {
  std::shared_ptr<Source> s(new Source());
  if (PyObject_GetBuffer(owner.ptr(), &s->view_, PyBUF_SIMPLE) != 0) throw py::error_already_set();
  s->has_view_ = true;
  s->data_ = s->view_.buf;
  s->size_ = static_cast<std::size_t>(s->view_.len);
  return s;
}

Source::~Source() {
  if (mapped_) munmap(const_cast<void*>(data_), size_);
  if (has_view_) PyBuffer_Release(&view_);
}

void Source::noteRead(std::size_t count) {
  if (!mapped_ || size_ < kTrimEvery) return;
  if (since_trim_.fetch_add(count, std::memory_order_relaxed) + count < kTrimEvery) return;
  since_trim_.store(0, std::memory_order_relaxed);
  // A shared read-only mapping of a file holds no private pages: dropping
  // it only unmaps page-cache pages, which the next access maps again.
  madvise(const_cast<void*>(data_), size_, MADV_DONTNEED);
}

FileState::~FileState() {
  if (fd >= 0) ::close(fd);
}

// --- Exceptions ----------------------------------------------------------------

namespace {
Exceptions g_exceptions;
}

const Exceptions& exceptions() { return g_exceptions; }

void registerExceptions(py::module_& m) {
  PyObject* notOle = PyErr_NewExceptionWithDoc(
      "moxolefio.NotOleFileError",
      "The file is not a compound file (olefile raises OSError with the same message).",
      PyExc_OSError, nullptr);
  PyObject* bases = PyTuple_Pack(2, PyExc_OSError, PyExc_ValueError);
  PyObject* damaged = PyErr_NewExceptionWithDoc(
      "moxolefio.DamagedFileError",
      "The file's structure is damaged where it was read; the message names the stream.",
      bases, nullptr);
  Py_XDECREF(bases);
  if (notOle == nullptr || damaged == nullptr) throw py::error_already_set();
  m.add_object("NotOleFileError", py::handle(notOle));
  m.add_object("DamagedFileError", py::handle(damaged));
  g_exceptions.not_ole = notOle;
  g_exceptions.damaged = damaged;
  g_exceptions.unsupported = py::object(py::module_::import("io").attr("UnsupportedOperation")).release();

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const mox::Error& e) {
      try {
        raise(e);
      } catch (py::error_already_set& set) {
        set.restore();
      }
    }
  });
}

void raise(const mox::Error& e, const std::string& fileName, const std::string& nativeName) {
  // olefile's own words, so that scripts printing the error print the same.
  std::string message = e.code() == mox::Errc::not_a_compound_file
                            ? std::string("not an OLE2 structured storage file")
                            : std::string(e.what());
  if (!fileName.empty() && message.compare(0, nativeName.size(), nativeName) == 0) {
    message.replace(0, nativeName.size(), fileName);
  }
  PyObject* type = PyExc_OSError;
  switch (e.code()) {
    case mox::Errc::not_found: type = PyExc_FileNotFoundError; break;
    case mox::Errc::not_a_compound_file: type = g_exceptions.not_ole.ptr(); break;
    case mox::Errc::damaged: type = g_exceptions.damaged.ptr(); break;
    case mox::Errc::io: type = PyExc_OSError; break;
    case mox::Errc::no_memory: type = PyExc_MemoryError; break;
    case mox::Errc::invalid_argument: type = PyExc_ValueError; break;
    case mox::Errc::exists: type = PyExc_FileExistsError; break;
    case mox::Errc::read_only: type = g_exceptions.unsupported.ptr(); break;
  }
  // Names may hold any character, NUL included: the message is passed
  // whole, not as a C string.
  PyObject* text = PyUnicode_DecodeUTF8(message.data(), static_cast<Py_ssize_t>(message.size()), "replace");
  if (text == nullptr) throw py::error_already_set();
  PyErr_SetObject(type, text);
  Py_DECREF(text);
  throw py::error_already_set();
}

}  // namespace moxpy
