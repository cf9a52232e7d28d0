// CMoxOleDocument: a compound document held in memory until it is written.
//
// The document owns the header values, the root entry (type 5, always
// directory entry 0) with the whole tree of entries below it, and, when
// the document is writable, the output object on the host's I/O object.  Entries are created by backslash path under parents that already
// exist; each one receives its directory index at creation, from a counter
// that the document shares with every entry's tree, so the n-th entry
// created anywhere in the document is entry n.  A failed creation leaves
// the counter, the trees and the entry list as they were.
//
// Paths: names separated by backslashes, one optional leading backslash,
// compared without regard to ASCII letter case.  The root is never named
// in a path, and the last name is cut to 36 characters.
//
// Memory: the document and its class objects live on the process heap
// (new (std::nothrow)); entries take their contents from pools of the
// host's services.  The two tables below take the process heap too, so
// that running out of memory is a status, not a throw.
#ifndef MOXOLEFIO_WRITER_MOXOLEDOC_H_
#define MOXOLEFIO_WRITER_MOXOLEDOC_H_

#include <stdint.h>

#include "moxolefio.h"
#include "interface/host_table.h"
#include "writer/entry.h"
#include "writer/header.h"
#include "writer/oleio.h"

// Buffer sizes for parseKey: a parent path of up to 1023 characters and a
// name of up to 36.
constexpr int kPathBufferSize = 1024;
constexpr int kNameMaxLength = 36;
constexpr int kNameBufferSize = kNameMaxLength + 1;

// Bit 0 of a document's mode: it is written at close.
constexpr int kDocumentWritable = 1;

class CMoxOleDocument {
 public:
  // Allocates nothing; init builds the contents.
  explicit CMoxOleDocument(tag_TPVAPIServices* services);

  // Releases the header, the root with every entry, then the output object
  // (which writes out its buffer and closes the host's I/O object), then
  // the arrays.
  ~CMoxOleDocument();

  CMoxOleDocument(const CMoxOleDocument&) = delete;
  CMoxOleDocument& operator=(const CMoxOleDocument&) = delete;

  // Builds the header and the root; with bit 0 of flags also the output
  // object, opened on io.  0, 2 (no memory) or the output's open status.
  // A document whose init failed is only fit to be deleted.
  int init(_ZqTPIOobj* io, int flags);

  // Splits path at its last backslash into parent (a buffer of
  // kPathBufferSize bytes) and name (kNameBufferSize bytes).  Without a
  // backslash the parent is empty.  The path is cut to 1023 characters and
  // the name to 36 before anything else is done with them.
  void parseKey(char const* path, char* parent, char* name);

  // The entry that parent (a path, cut up in place) names, or null when a
  // component is missing.  Null and empty paths name the root.
  CMoxOleEntry* findParent(char* parent);

  // The entry that path names, or null.
  CMoxOleEntry* findEntry(char const* path);

  // Creates a storage (type 1) or stream (type 2) at path.  0 and entry
  // set; otherwise entry null and 6 (not writable, no such parent, or the
  // name is taken), 34 (bad type) or 2 (no memory).
  int addEntry(char const* path, int type, CMoxOleEntry*& entry);

  // --- Layout, run once at close --------------------------------------
  // The file is planned whole before its first byte is written: regions in
  // the order DIFAT, FAT, mini FAT, directory, regular streams, mini
  // stream.  Positions are byte offsets from the start of sector 0, the
  // sector after the header.

  // Counts the sectors every region needs and solves the sizes of the
  // tables: FAT, mini FAT and DIFAT sectors.  Returns the FAT sector count,
  // also stored in fatSectors.
  long countTableSectors(long& fatSectors, long& miniFatSectors, long& difatSectors);

  // Gives the directory, every regular stream and the mini stream their
  // sectors from position on, chains them in the FAT and hands out the
  // mini sectors.  0, or 2 when a mini sector list cannot be had.
  int assignSectors(long& position);

  // The directory's sectors from position on, chained in the FAT.
  void assignDirectorySectors(long& position);

  // --- Output, in file order --------------------------------------------
  // Plans and writes the whole file through the output object in one
  // forward pass.  0; 6 when the document is not writable (nothing is
  // written); 2 from planning; otherwise the first failing output status.
  int writeDisk();

  int writeHeader();

  // The DIFAT sectors: the numbers of the FAT sectors beyond the header's
  // (rest of them), 127 to a sector with a link to the next in the last
  // slot, everything else -2.
  int writeDIFATSectors(long rest, long difatSectors);

  // The FAT, then the mini FAT.  Chains the mini FAT's own sectors first
  // and gives the root the size of the mini stream in use.
  int writeFATSectors(long fatEntries, long miniEntries, long miniFatSectors);

  // The root, then every entry in index order, padded to whole sectors.
  // Sibling links come from each storage's tree.
  int writeDirSectors();

  // Regular streams in creation order, then the mini stream, then zeros
  // to the end of the last sector.
  int writeStreamSectors();

  CMoxOleEntry* pRootEntry;
  CMoxOleHeader* pHeader;
  tag_TPVAPIServices* pServices;
  CMoxOleIo* pOleIo;
  int64_t lNextOrdinal;
  MoxTable<CMoxOleEntry*> vEntries{moxProcessHeap(), MoxGrowth::kCopy};  // creation order
  MoxTable<int64_t> vFat{moxProcessHeap(), MoxGrowth::kCopy};
  int32_t iMode;

 private:
  int64_t sectorSize() const { return int64_t{1} << pHeader->sector_shift; }
  // Streams of this size and more take regular sectors.
  int64_t miniCutoff() const { return pHeader->mini_cutoff; }
  // FAT entries per sector.
  int64_t fatPerSector() const { return sectorSize() / 4; }
  // Sector holding byte position p (counted from sector 0).
  int64_t sectorAt(int64_t p) const { return p >> pHeader->sector_shift; }
  // Sectors of the directory: the root and every entry, 128 bytes each.
  int64_t directorySectors() const;

  // The FAT with its own and the DIFAT's sectors marked, and the header's
  // region fields; position ends at the first directory sector.  False
  // when the FAT cannot be had.
  bool setUpRegions(long fatSectors, long miniFatSectors, long difatSectors,
                    long& position);
  // The header's FAT sector slots: the first FAT sectors, then -1.
  void fillHeaderDifat(long fatSectors, long difatSectors);
  // Pads the output with zeros up to a multiple of unit bytes.
  int padTo(int64_t unit);
};

#endif  // MOXOLEFIO_WRITER_MOXOLEDOC_H_
