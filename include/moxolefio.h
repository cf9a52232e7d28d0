/*
 * moxolefio - reading and writing OLE2 compound documents.
 *
 * This is the whole binary interface of libmoxolefio.so for hosts.  A host
 * calls GetOLEInterface() once to receive a table of 22 document functions
 * and then works only through handles (_MoxOleFile) that it opens on I/O
 * objects and memory interfaces of its own.  The library never opens a
 * document file itself, keeps no global state and starts no threads.
 *
 * The header is valid C and C++; layouts assume LP64 Linux.
 */
#ifndef MOXOLEFIO_H
#define MOXOLEFIO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(MOXOLEFIO_BUILDING)
#define MOXOLE_API __attribute__((visibility("default")))
#else
#define MOXOLE_API
#endif

/* ------------------------------------------------------------------------ */
/* Host I/O object.  Every byte of a document is read and written through   */
/* one of these.  Layout is fixed (152 bytes).                              */

typedef struct _ZqTPIOobj _ZqTPIOobj;

struct _ZqTPIOobj {
  uint32_t uiKind;       /* owner-defined; 3 in stream-backed objects */
  uint32_t uiKind2;      /* owner-defined; 5 in stream-backed objects */
  uint64_t ulWord;       /* 0 in objects the library makes */
  void* pReserved1;
  void* pPrivate;        /* owner data of whoever implements the functions */
  void* pReserved2;
  _ZqTPIOobj* pParent;   /* stream-backed objects: the document's host object */
  void* pReserved3;
  /* nonzero on success */
  int (*open)(_ZqTPIOobj* self);
  /* bytes read; anything but count is a short read */
  int (*read)(_ZqTPIOobj* self, void* buffer, int count);
  /* nonzero on success; a null write marks a read-only object */
  int (*write)(_ZqTPIOobj* self, const void* buffer, int count);
  /* whence 0 start, 1 current, 2 end; nonzero on success */
  int (*seek)(_ZqTPIOobj* self, int64_t offset, int whence);
  int64_t (*tell)(_ZqTPIOobj* self);
  int (*close)(_ZqTPIOobj* self); /* result ignored by the library */
  int (*error)(_ZqTPIOobj* self); /* never called by the library */
  void* apReserved[5];
};

/* ------------------------------------------------------------------------ */
/* Memory interface.  Sizes are signed 32-bit; a size whose computation     */
/* overflows is passed as INT32_MIN, which the host must answer with null.  */

typedef struct HostMemory HostMemory;

struct HostMemory {
  void* (*unused)(HostMemory* self);
  void* (*allocate)(HostMemory* self, int size);
  void (*free)(HostMemory* self, void* block);
  void* (*reallocate)(HostMemory* self, void* block, int size);
  void* (*allocateArray)(HostMemory* self, int elementSize, int count);
};

/* Host services handed to the writer.  A pool has the shape of HostMemory;
 * the library allocates from it (slots 1 and 4) and never frees single
 * blocks: destroyPool releases the pool with everything taken from it.
 * The library always asks for pools with initialSize 4096 and flags 0 and
 * does not look at *status; both are the host's to interpret. */
typedef struct tag_TPVAPIServices tag_TPVAPIServices;

struct tag_TPVAPIServices {
  HostMemory memory;
  HostMemory* (*createPool)(tag_TPVAPIServices* self, int initialSize,
                            int flags, int* status);
  void (*destroyPool)(tag_TPVAPIServices* self, HostMemory* pool);
};

/* ------------------------------------------------------------------------ */
/* Records handed to the host.                                              */

typedef struct _MoxOleFile _MoxOleFile; /* the document handle, opaque */

typedef struct _MoxOleTreeNode _MoxOleTreeNode;

/* One node of the storage tree built by iOLEGetStreamTree. */
struct _MoxOleTreeNode {
  char szName[36];     /* 8-bit name (low byte of each UTF-16 unit) */
  int iType;           /* 1 storage, 2 stream, 5 root, other values as stored */
  int iSize;           /* low 32 bits of a stream's size; 0 otherwise */
  int iIndex;          /* directory entry number; 0 for the root */
  int iChildCount;     /* number of children in ppChildren */
  _MoxOleTreeNode** ppChildren; /* null when there are none */
  _MoxOleTreeNode* pParent;     /* null for the root */
};

/* One child of a storage, listed by moxoleGetObjectList. */
typedef struct _MoxOleObjectEntry {
  char szName[36];     /* at most 35 bytes of the name, zero-terminated */
  uint32_t uiType;
  uint32_t uiSize;
} _MoxOleObjectEntry;

/* A storage path is an array of 36-byte name slots, outermost first. */
typedef char MoxOleStorageName[36];

/* Status codes of the writer, tree and storage-tree functions. */
enum {
  MOXOLE_OK = 0,
  MOXOLE_NO_MEMORY = 2,
  MOXOLE_BAD_LINK = 4,
  MOXOLE_NOT_FOUND = 6,  /* also: not allowed, name exists */
  MOXOLE_CANNOT_OPEN_OUTPUT = 14,
  MOXOLE_WRITE_FAILED = 16,
  MOXOLE_BAD_ARGUMENT = 34
};

/* ------------------------------------------------------------------------ */
/* The function table, in slot order.  GetOLEInterface fills 22 pointers;   */
/* a host may pass this struct or any array of 22 pointers.                 */

typedef struct MoxOleInterface {
  _MoxOleFile* (*hOLEopen)(_ZqTPIOobj* io, HostMemory* memory);          /* 0 */
  _MoxOleFile* (*hOLEopenClone)(_MoxOleFile* h);                          /* 1 */
  int (*bOLEopenStream)(_MoxOleFile* h, const char* stream);              /* 2 */
  int (*bOLEopenStreamIgnoreStorage)(_MoxOleFile* h, const char* stream); /* 3 */
  int (*bOLEopenEmbeddedStream)(_MoxOleFile* h, const char* stream,
                                const char* storage);                     /* 4 */
  int64_t (*lOLEseek)(_MoxOleFile* h, int64_t offset, int whence);        /* 5 */
  int64_t (*lOLEtell)(_MoxOleFile* h);                                    /* 6 */
  uint32_t (*iOLEread)(_MoxOleFile* h, void* buffer, uint32_t count);     /* 7 */
  int (*iOLEclose)(_MoxOleFile* h);                                       /* 8 */
  int (*iOLEcloseClone)(_MoxOleFile* h);                                  /* 9 */
  int (*bOLEcloseStream)(_MoxOleFile* h, const char* stream);             /* 10 */
  _ZqTPIOobj* (*hSwitchToOLE)(_MoxOleFile* h);                            /* 11 */
  _ZqTPIOobj* (*hSwitchFromOLE)(_MoxOleFile* h);                          /* 12 */
  int (*bOLEgetObject)(_MoxOleFile* h, int64_t number, void* target,
                       int type);                                         /* 13 */
  int64_t (*lOLEopenObject)(_MoxOleFile* h, const char* storage, int type); /* 14 */
  int (*bOLEopenEmbeddedStreamEx)(_MoxOleFile* h, const char (*path)[36],
                                  int depth, const char* stream);         /* 15 */
  int (*iOLEobjectType)(_MoxOleFile* h, const char (*path)[36], int depth,
                        const char* name);                                /* 16 */
  int (*moxoleGetObjectList)(_MoxOleFile* h, const char (*path)[36],
                             int depth, _MoxOleObjectEntry** out);        /* 17 */
  _MoxOleFile* (*hOLEopenEx)(_ZqTPIOobj* io, tag_TPVAPIServices* services,
                             int flags);                                  /* 18 */
  int (*iOLEopenStreamEx)(_MoxOleFile* h, const char* path, int type,
                          unsigned flags);                                /* 19 */
  int (*iOLEwrite)(_MoxOleFile* h, unsigned char* data, int length);      /* 20 */
  int (*iOLEGetStreamTree)(_MoxOleFile* h, HostMemory* pool,
                           _MoxOleTreeNode** out);                        /* 21 */
} MoxOleInterface;

#define MOXOLE_INTERFACE_SLOTS 22

/* Fills table[0..21] in the order of MoxOleInterface.  May be called any
 * number of times. */
MOXOLE_API void GetOLEInterface(void** table);

/* The library version as text, for example "0.1.0". */
MOXOLE_API const char* moxoleVersion(void);

/* Opening and closing (see the README for the full contract). */
MOXOLE_API _MoxOleFile* hOLEopen(_ZqTPIOobj* io, HostMemory* memory);
/* openIo nonzero: the library calls io->open first (and io->close if the
 * open then fails). */
MOXOLE_API _MoxOleFile* hOLEopenEXT(_ZqTPIOobj* io, HostMemory* memory,
                                    int openIo);
/* A second handle on the same document and I/O object; never closes it. */
MOXOLE_API _MoxOleFile* hOLEopenClone(_MoxOleFile* h);
/* Close functions return 1, or -1 for a null handle.  iOLEclose closes the
 * host I/O object, iOLEcloseClone does not. */
MOXOLE_API int iOLEclose(_MoxOleFile* h);
MOXOLE_API int iOLEcloseClone(_MoxOleFile* h);
MOXOLE_API int iOLEcloseEXT(_MoxOleFile* h, int closeIo);

/* Streams: each open makes one stream current, replacing the last one, and
 * positions it at 0.  Results: 1 opened, 0 not. */
MOXOLE_API int bOLEopenStream(_MoxOleFile* h, const char* stream);
MOXOLE_API int bOLEopenStreamIgnoreStorage(_MoxOleFile* h, const char* stream);
MOXOLE_API int bOLEopenEmbeddedStream(_MoxOleFile* h, const char* stream,
                                      const char* storage);
MOXOLE_API int bOLEopenEmbeddedStreamEx(_MoxOleFile* h,
                                        const char (*path)[36], int depth,
                                        const char* stream);
MOXOLE_API int bOLEcloseStream(_MoxOleFile* h, const char* stream);
/* Position in the current stream; -1 when none has been positioned. */
MOXOLE_API int64_t lOLEtell(_MoxOleFile* h);
/* whence 0 start, 1 current, 2 end; clamps to the stream; -1 on failure. */
MOXOLE_API int64_t lOLEseek(_MoxOleFile* h, int64_t offset, int whence);
/* Bytes copied; fewer than asked at the end of the stream or on I/O errors. */
MOXOLE_API uint32_t iOLEread(_MoxOleFile* h, void* buffer, uint32_t count);

/* The current stream as an I/O object (kinds 3 and 5). */
MOXOLE_API _ZqTPIOobj* hSwitchToOLE(_MoxOleFile* h);
MOXOLE_API _ZqTPIOobj* hSwitchFromOLE(_MoxOleFile* h);

/* Storage tree and embedded objects. */
MOXOLE_API int iOLEGetStreamTree(_MoxOleFile* h, HostMemory* pool,
                                 _MoxOleTreeNode** out);
MOXOLE_API int moxoleGetObjectList(_MoxOleFile* h, const char (*path)[36],
                                   int depth, _MoxOleObjectEntry** out);
MOXOLE_API int iOLEobjectType(_MoxOleFile* h, const char (*path)[36],
                              int depth, const char* name);
MOXOLE_API int64_t lOLEopenObject(_MoxOleFile* h, const char* storage,
                                  int type);
MOXOLE_API int bOLEgetObject(_MoxOleFile* h, int64_t number, void* target,
                             int type);

/* Writing.  flags bit 0 set: create a new document on io, written when the
 * handle is closed; flags 0: open an existing one read-only by path. */
MOXOLE_API _MoxOleFile* hOLEopenEx(_ZqTPIOobj* io,
                                   tag_TPVAPIServices* services, int flags);
/* flags 1 creates a storage (type 1) or stream (type 2) at a backslash
 * path; flags 0 opens the stream at the path for reading. */
MOXOLE_API int iOLEopenStreamEx(_MoxOleFile* h, const char* path, int type,
                                unsigned flags);
MOXOLE_API int iOLEwrite(_MoxOleFile* h, unsigned char* data, int length);

/* Why the last call on a handle failed, as one line of text ("FAT sector
 * 17 cannot be read") cut to size bytes with its terminator.  Returns the
 * length of the whole line, 0 when nothing has failed on the handle, -1
 * for a null handle or buffer. */
MOXOLE_API int moxoleFailure(_MoxOleFile* h, char* text, int size);
/* Why hOLEopen fails on io: loads the document again (without opening or
 * closing io) and describes the first failure as moxoleFailure does; 0
 * when the document opens, -1 for bad arguments. */
MOXOLE_API int moxoleOpenFailure(_ZqTPIOobj* io, HostMemory* memory,
                                 char* text, int size);

/* Lower-level entry points, exported for hosts that walk a document by
 * directory entry number (for instance a tree node's iIndex). */
MOXOLE_API int iGetStreamChain(_MoxOleFile* h, const char* stream,
                               const char* storage, int ignoreStorage);
MOXOLE_API int iFindIStreamGivenIStorage(_MoxOleFile* h, const char* stream,
                                         int storage);
MOXOLE_API int iReadStreamChain(int entry, _MoxOleFile* h);

#ifdef __cplusplus
}
#endif

#endif /* MOXOLEFIO_H */
