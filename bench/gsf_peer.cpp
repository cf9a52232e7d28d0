// libgsf present: the peer functions over its public API.
#include "bench/gsf_peer.h"

#include <fcntl.h>
#include <gsf/gsf.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace bench {
namespace gsf {

struct Doc {
  GsfInput* input;
  GsfInfile* infile;
};

struct Storage {
  GsfInfile* infile;
};

namespace {

void initOnce() {
  static bool done = false;
  if (!done) gsf_init();
  done = true;
}

Doc* openOn(GsfInput* input) {
  if (input == nullptr) return nullptr;
  GsfInfile* infile = gsf_infile_msole_new(input, nullptr);
  if (infile == nullptr) {
    g_object_unref(input);
    return nullptr;
  }
  return new Doc{input, infile};
}

// Reads `input` to its end; false on a failed request.
bool drain(GsfInput* input, uint8_t* buffer, size_t request, int64_t* bytes,
           uint64_t* checksum) {
  gsf_off_t left = gsf_input_remaining(input);
  uint64_t sum = 0;
  while (left > 0) {
    const size_t n = static_cast<size_t>(std::min<gsf_off_t>(left, request));
    if (gsf_input_read(input, n, buffer) == nullptr) return false;
    // One byte per request is enough to keep the copy from being elided.
    sum += buffer[0] + buffer[n - 1];
    left -= n;
    *bytes += static_cast<int64_t>(n);
  }
  *checksum += sum;
  return true;
}

// Writes `size` bytes into a new child of `parent`.
bool writeChild(GsfOutfile* parent, const char* name, const uint8_t* data, size_t size,
                size_t piece) {
  GsfOutput* child = gsf_outfile_new_child(parent, name, FALSE);
  if (child == nullptr) return false;
  bool ok = true;
  for (size_t done = 0; done < size && ok; done += piece) {
    ok = gsf_output_write(child, std::min(piece, size - done), data) != FALSE;
  }
  ok = gsf_output_close(child) != FALSE && ok;
  g_object_unref(child);
  return ok;
}

// Closing the document writes it and closes the sink with it.
bool finish(GsfOutfile* outfile, GsfOutput* sink, int64_t* fileBytes) {
  bool ok = gsf_output_close(GSF_OUTPUT(outfile)) != FALSE;
  g_object_unref(outfile);
  *fileBytes = static_cast<int64_t>(gsf_output_size(sink));
  if (!gsf_output_is_closed(sink)) ok = gsf_output_close(sink) != FALSE && ok;
  g_object_unref(sink);
  return ok;
}

}  // namespace

bool available() { return true; }

Doc* openMemory(const uint8_t* data, size_t size) {
  initOnce();
  return openOn(gsf_input_memory_new(data, static_cast<gsf_off_t>(size), FALSE));
}

Doc* openFile(const std::string& path) {
  initOnce();
  return openOn(gsf_input_stdio_new(path.c_str(), nullptr));
}

void close(Doc* doc) {
  if (doc == nullptr) return;
  g_object_unref(doc->infile);
  g_object_unref(doc->input);
  delete doc;
}

Storage* openStorage(Doc* doc, const std::string& name) {
  GsfInput* child = gsf_infile_child_by_name(doc->infile, name.c_str());
  if (child == nullptr) return nullptr;
  if (!GSF_IS_INFILE(child)) {
    g_object_unref(child);
    return nullptr;
  }
  return new Storage{GSF_INFILE(child)};
}

void close(Storage* storage) {
  if (storage == nullptr) return;
  g_object_unref(storage->infile);
  delete storage;
}

bool readStream(Doc* doc, Storage* storage, const std::string& name, uint8_t* buffer,
                size_t request, int64_t* bytes, uint64_t* checksum) {
  GsfInfile* parent = storage != nullptr ? storage->infile : doc->infile;
  GsfInput* child = gsf_infile_child_by_name(parent, name.c_str());
  if (child == nullptr) return false;
  bool ok = drain(child, buffer, request, bytes, checksum);
  g_object_unref(child);
  return ok;
}

bool openChild(Doc* doc, const std::string& name) {
  GsfInput* child = gsf_infile_child_by_name(doc->infile, name.c_str());
  if (child == nullptr) return false;
  g_object_unref(child);
  return true;
}

static bool writeOneStreamTo(GsfOutput* sink, int64_t total, int piece, int64_t* fileBytes) {
  if (sink == nullptr) return false;
  GsfOutfile* outfile = gsf_outfile_msole_new(sink);
  if (outfile == nullptr) return false;
  std::vector<uint8_t> data(static_cast<size_t>(piece));
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
  GsfOutput* child = gsf_outfile_new_child(outfile, "Large", FALSE);
  bool ok = child != nullptr;
  for (int64_t done = 0; done < total && ok; done += piece) {
    ok = gsf_output_write(child, data.size(), data.data()) != FALSE;
  }
  if (child != nullptr) {
    ok = gsf_output_close(child) != FALSE && ok;
    g_object_unref(child);
  }
  return finish(outfile, sink, fileBytes) && ok;
}

static bool writeManyStreamsTo(GsfOutput* sink, int count, int size, int64_t* fileBytes) {
  if (sink == nullptr) return false;
  GsfOutfile* outfile = gsf_outfile_msole_new(sink);
  if (outfile == nullptr) return false;
  std::vector<uint8_t> data(static_cast<size_t>(size), 0x5A);
  char name[64];
  bool ok = true;
  GsfOutfile* storage = nullptr;
  for (int i = 0; i < count && ok; ++i) {
    if (i % 100 == 0) {
      if (storage != nullptr) {
        ok = gsf_output_close(GSF_OUTPUT(storage)) != FALSE;
        g_object_unref(storage);
      }
      snprintf(name, sizeof name, "Storage%d", i / 100);
      storage = GSF_OUTFILE(gsf_outfile_new_child(outfile, name, TRUE));
      if (storage == nullptr) return false;
    }
    snprintf(name, sizeof name, "Stream%d", i);
    ok = writeChild(storage, name, data.data(), data.size(), data.size()) && ok;
  }
  if (storage != nullptr) {
    ok = gsf_output_close(GSF_OUTPUT(storage)) != FALSE && ok;
    g_object_unref(storage);
  }
  return finish(outfile, sink, fileBytes) && ok;
}

bool writeOneStream(int64_t total, int piece, int64_t* fileBytes) {
  initOnce();
  return writeOneStreamTo(gsf_output_memory_new(), total, piece, fileBytes);
}

bool writeManyStreams(int count, int size, int64_t* fileBytes) {
  initOnce();
  return writeManyStreamsTo(gsf_output_memory_new(), count, size, fileBytes);
}

namespace {

bool flushToDisk(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = fsync(fd) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

bool writeOneStreamToFile(const std::string& path, int64_t total, int piece, int64_t* fileBytes) {
  initOnce();
  return writeOneStreamTo(gsf_output_stdio_new(path.c_str(), nullptr), total, piece, fileBytes) &&
         flushToDisk(path);
}

bool writeManyStreamsToFile(const std::string& path, int count, int size, int64_t* fileBytes) {
  initOnce();
  return writeManyStreamsTo(gsf_output_stdio_new(path.c_str(), nullptr), count, size, fileBytes) &&
         flushToDisk(path);
}

}  // namespace gsf
}  // namespace bench
