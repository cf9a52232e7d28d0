// CMoxOleEntry: one storage or stream of a document being written.
//
// An entry is two things at once.  It is a future directory entry (name,
// type, colour, sibling and child links, start sector, size), and, being a
// CMoxOleRedBlack, it is the tree of its own children, ordered by the
// tolerant rule of interface/sibling_names.h: shorter names first, names
// of equal length by their bytes with ASCII letters folded to lower case.
// Names that differ only in letter case are the same name.
//
// A stream's bytes wait in memory in a singly linked list of blocks of one
// sector each until the file is laid out; each block is later written as
// one sector straight from its buffer.
//
// Memory: the entry object itself lives on the process heap.  Its name,
// its children's tree nodes, its blocks and its mini sector list all come
// from the entry's own pool (made by the tree base) and go with it in one
// call when the entry is destroyed.  An entry owns its children: deleting
// an entry deletes its whole subtree, depth first.
#ifndef MOXOLEFIO_WRITER_ENTRY_H_
#define MOXOLEFIO_WRITER_ENTRY_H_

#include <stdint.h>

#include "tree/redblack.h"

class CMoxOleHeader;
class CMoxOleIo;

// One sector's worth of stream data.
struct _MoxOleBlock {
  unsigned char* pbData;  // block-size bytes; those past the stream's end are zero
  _MoxOleBlock* pNext;    // null at the end of the list
};

// Sector size of an entry built without a header.
constexpr int kDefaultBlockSize = 512;

class CMoxOleEntry final : public CMoxOleRedBlack {
 public:
  // Copies name (when not null) into the entry's pool.  type is 1 storage,
  // 2 stream, 5 root.  header, when given, sets the block and mini sector
  // sizes; an entry without one only serves as a name to look up and is
  // never laid out.  Check ready() before using the entry.
  CMoxOleEntry(char* name, int type, tag_TPVAPIServices* services,
                   CMoxOleHeader* header);

  // Deletes every child, then the pool goes with the base.
  ~CMoxOleEntry();

  // False when the pool or the copy of the name could not be had: such an
  // entry can hold neither children nor data and must be deleted.
  bool ready() const;

  // A new entry on the process heap, or null when the object, its pool or
  // its name could not be had.
  static CMoxOleEntry* create(char* name, int type, tag_TPVAPIServices* services,
                                  CMoxOleHeader* header);

  // Inserts child into this entry's tree, which fixes the child's future
  // directory index from the shared counter.  0, 6 (an equal name is
  // already a child) or 2 (no memory).  On success the child takes the
  // colour its node has right after this insertion; later insertions may
  // recolour the node without updating the field.
  int addChild(CMoxOleEntry* child);

  // The child whose name equals name, or null.
  CMoxOleEntry* findChild(char* name);

  // Ordering and equality of two entries' names.
  bool compLT(void* a, void* b) override;
  bool compEQ(void* a, void* b) override;
  // Deletes an entry (null is ignored).
  void deleteData(void* data) override;
  // Stores an entry's directory index and its sibling links.
  void setOrdinal(void* data, long index, long left, long right) override;

  // Appends length bytes to a stream.  0; 6 when the entry is not a stream;
  // 34 for a negative length (nothing changes); 2 when a block cannot be
  // had, in which case the bytes stored before the failure stay and the
  // stream size counts exactly those.  A null data pointer or a length of
  // 0 writes nothing and succeeds.
  int write(unsigned char* data, int length);

  // Appends block at the end of the block list.
  void insertBlock(_MoxOleBlock* block);

  // Only the root's size is set from outside (to the mini stream's size):
  // 0 for the root, 34 and no change for any other entry.
  int setStreamSize(long size);

  // --- Layout at close ---------------------------------------------------
  // A stream of at least the cutoff size takes one sector per block, from
  // the sector at byte position on, chained in fat; position moves past
  // them.  Any other type gets start sector -2.  Always 0.
  int assignStreamSectors(long& position, long* fat);

  // A stream below the cutoff takes ceil(size / 64) consecutive mini
  // sectors from miniPosition on, and keeps their chain in a list from its
  // pool.  Storages and empty streams take none.  0, or 2 without memory.
  int assignMiniStreamSectors(long& miniPosition);

  // Copies this entry's mini chain into the mini FAT table of `entries`
  // values.  0, or 2 when the chain would leave the table.
  int collectMiniFATSectors(long* table, long entries);

  // --- Output at close ---------------------------------------------------
  // The directory entry.  Also fixes lChild from the tree.
  // Returns 0 whatever the output reports; a host that keeps failing is
  // caught by the next status the file writer checks.
  int writeDirEntry(CMoxOleIo* io);

  // A regular stream: every block whole, one sector each.  0 or the status.
  int writeStreamEntry(CMoxOleIo* io);

  // A mini stream: its bytes, padded with zeros to a multiple of 64.
  int writeMiniStreamEntry(CMoxOleIo* io);

  int64_t lLeftSibling;
  int64_t lRightSibling;
  int64_t lChild;
  int64_t lIndex;
  CMoxOleHeader* pHeader;
  char* pszName;
  int32_t iType;
  int32_t iBlockSize;
  int32_t iMiniSectorSize;
  int64_t lStartSector;
  int64_t lMiniStartSector;
  int64_t* plMiniSectors;
  int64_t lMiniSectorCount;
  int64_t lStreamSize;
  int32_t iBlockCount;
  int32_t iLastBlockFill;
  int32_t iColour;
  _MoxOleBlock* pFirstBlock;
  _MoxOleBlock* pLastBlock;

 private:
  struct ProbeTag {};
  // A transient entry that only carries a borrowed name to compare with:
  // no pool, no copy, nothing to fail.
  CMoxOleEntry(ProbeTag, char* name);

  void setDefaults(int type, CMoxOleHeader* header);

  // A block from the pool, not cleared: write clears what it does not
  // fill.  Null with error set to 2 when the pool has none.
  _MoxOleBlock* takeBlock(int& error);
};

#endif  // MOXOLEFIO_WRITER_ENTRY_H_
