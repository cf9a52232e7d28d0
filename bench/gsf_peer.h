// libgsf doing the same work as moxolefio, for the comparison columns.
//
// libgsf is a black box here: it is driven only through its public API
// (GsfInfileMSOle over a memory or stdio input, GsfOutfileMSOle over a
// memory output).  It is optional: without it (no pkg-config libgsf-1 at
// configure time) every function reports that it is not available and the
// table shows "-" in its column.
//
// Functions return false when the work could not be done; the caller then
// leaves the figure out rather than printing a wrong one.
#ifndef MOXOLEFIO_BENCH_GSF_PEER_H_
#define MOXOLEFIO_BENCH_GSF_PEER_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace bench {
namespace gsf {

bool available();

// An opened compound document and, below it, an opened storage.
struct Doc;
struct Storage;

// Over bytes the caller keeps alive, or over a file read with stdio.
Doc* openMemory(const uint8_t* data, size_t size);
Doc* openFile(const std::string& path);
void close(Doc* doc);

// A storage directly under the root; null when there is none.
Storage* openStorage(Doc* doc, const std::string& name);
void close(Storage* storage);

// Opens the stream `name` (under the root, or under `storage` when given)
// and reads it to its end in requests of `request` bytes into `buffer`.
// Adds the bytes read to *bytes and their sum to *checksum.
bool readStream(Doc* doc, Storage* storage, const std::string& name, uint8_t* buffer,
                size_t request, int64_t* bytes, uint64_t* checksum);

// Opens (and closes again) the child `name` of the root; false when absent.
bool openChild(Doc* doc, const std::string& name);

// Writes a new document into memory: one stream of `total` bytes in
// writes of `piece` bytes, or `count` streams of `size` bytes, 100 to a
// storage.  *fileBytes is the size of the file made.
bool writeOneStream(int64_t total, int piece, int64_t* fileBytes);
bool writeManyStreams(int count, int size, int64_t* fileBytes);

// The same into a file at `path` (libgsf's stdio output), flushed to the
// disk with fsync once libgsf has closed it, as a commit is.
bool writeOneStreamToFile(const std::string& path, int64_t total, int piece, int64_t* fileBytes);
bool writeManyStreamsToFile(const std::string& path, int count, int size, int64_t* fileBytes);

}  // namespace gsf
}  // namespace bench

#endif  // MOXOLEFIO_BENCH_GSF_PEER_H_
