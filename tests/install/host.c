/* A host written against the installed package only: opens a document
 * through an I/O object over stdio and reports how far it got. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <moxolefio.h>

static FILE* file_of(_ZqTPIOobj* io) { return (FILE*)io->pPrivate; }

static int io_open(_ZqTPIOobj* io) { return file_of(io) != NULL; }
static int io_read(_ZqTPIOobj* io, void* buffer, int count) {
  return (int)fread(buffer, 1, (size_t)count, file_of(io));
}
static int io_seek(_ZqTPIOobj* io, int64_t offset, int whence) {
  return offset >= 0 && fseek(file_of(io), (long)offset, whence) == 0;
}
static int64_t io_tell(_ZqTPIOobj* io) { return ftell(file_of(io)); }
static int io_close(_ZqTPIOobj* io) { return fclose(file_of(io)) == 0; }
static int io_error(_ZqTPIOobj* io) { return ferror(file_of(io)); }

static void* mem_allocate(HostMemory* m, int size) {
  (void)m;
  return size < 0 ? NULL : malloc((size_t)size + 1);
}
static void mem_free(HostMemory* m, void* block) { (void)m; free(block); }
static void* mem_reallocate(HostMemory* m, void* block, int size) {
  (void)m;
  return size < 0 ? NULL : realloc(block, (size_t)size + 1);
}
static void* mem_array(HostMemory* m, int element, int count) {
  (void)m;
  return element < 0 || count < 0 ? NULL : calloc((size_t)count + 1, (size_t)element);
}

int main(int argc, char** argv) {
  MoxOleInterface api;
  _ZqTPIOobj io;
  HostMemory memory = {NULL, mem_allocate, mem_free, mem_reallocate, mem_array};
  _MoxOleFile* document;
  if (argc != 2) return 2;
  GetOLEInterface((void**)&api);
  if (api.hOLEopen == NULL || api.iOLEclose == NULL) return 3;
  memset(&io, 0, sizeof io);
  io.pPrivate = fopen(argv[1], "rb");
  io.open = io_open;
  io.read = io_read;
  io.seek = io_seek;
  io.tell = io_tell;
  io.close = io_close;
  io.error = io_error;
  document = api.hOLEopen(&io, &memory);
  if (document == NULL) return 4;
  printf("moxolefio %s opened %s\n", moxoleVersion(), argv[1]);
  return api.iOLEclose(document) == 1 ? 0 : 5;
}
