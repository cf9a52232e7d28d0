// The command table: names, synopses and the text of each --help.
#include "tools/moxole/commands.h"

namespace moxole {

const std::vector<Command>& allCommands() {
  static const std::vector<Command> commands = {
      {"info", "info FILE",
       "Shows the layout of a compound file: versions, byte order, sector and\n"
       "mini sector sizes, the mini stream cutoff, the number of FAT, mini FAT,\n"
       "DIFAT and directory sectors, the number of storages and streams below\n"
       "the root, and the bytes held in streams.\n",
       "", 1, 1, runInfo},
      {"ls", "ls [-l] [-R] FILE [PATH]",
       "Lists the entries of the storage at PATH (the root by default), sorted\n"
       "by name; a PATH naming a stream lists that stream.\n"
       "\n"
       "  -l  long listing: type, size in bytes (\"-\" for storages), name\n"
       "  -R  list every entry below PATH, as paths relative to it\n",
       "lR", 1, 2, runList},
      {"tree", "tree FILE",
       "Draws the whole storage tree: storages end in '/', streams show their\n"
       "size.\n",
       "", 1, 1, runTree},
      {"cat", "cat FILE PATH",
       "Writes the bytes of the stream at PATH to standard output.\n", "", 2, 2,
       runCat},
      {"extract", "extract FILE DIR",
       "Writes every storage below the root as a directory and every stream as\n"
       "a file under DIR, which must not exist yet or be empty.  Names are\n"
       "escaped as 'ls' shows them, so no file is written outside DIR.  Shows\n"
       "progress on standard error when that is a terminal.\n",
       "", 2, 2, runExtract},
      {"pack", "pack DIR FILE",
       "Writes a new compound file FILE holding DIR's tree: directories become\n"
       "storages and files become streams, names unescaped as 'extract' wrote\n"
       "them.  Names must have at most 31 characters, contain no '\\' once\n"
       "unescaped, and siblings must differ by more than letter case.  FILE is\n"
       "replaced only when the whole document was written.  Shows progress on\n"
       "standard error when that is a terminal.\n",
       "", 2, 2, runPack},
      {"objects", "objects FILE",
       "Lists the embedded objects of a word-processing document: storages\n"
       "named '_' and a number, with the streams each one holds.\n",
       "", 1, 1, runObjects},
      {"object", "object [-p] FILE N OUT",
       "Extracts embedded object N of a word-processing document into OUT: the\n"
       "metafile of its \\x03META stream, without the stream's leading header.\n"
       "\n"
       "  -p  copy the 76-byte picture record of its \\x03PIC stream instead\n",
       "p", 3, 3, runObject},
      {"put", "put FILE PATH [SRC]",
       "Writes the stream at PATH from the file SRC, or from standard input when\n"
       "SRC is missing or '-', replacing a stream already there and making the\n"
       "storages above it.  FILE is created (version 4) when it does not exist.\n"
       "The document is rewritten beside itself and renamed over FILE only\n"
       "when complete.\n",
       "", 2, 3, runPut},
      {"rm", "rm FILE PATH",
       "Removes the stream or storage at PATH, with everything below it,\n"
       "committed as 'put' does.\n",
       "", 2, 2, runRemove},
      {"mv", "mv FILE PATH NEW",
       "Moves the entry at PATH into the storage NEW when there is one, else\n"
       "renames and moves it to the path NEW (whose storage must exist).\n"
       "Committed as 'put' does.\n",
       "", 3, 3, runMove},
      {"mkdir", "mkdir FILE PATH",
       "Makes the storage PATH and any storages above it.  FILE is created\n"
       "(version 4) when it does not exist.  Committed as 'put' does.\n",
       "", 2, 2, runMkdir},
      {"check", "check FILE",
       "Scans the whole structure of FILE (header, FAT, DIFAT, mini FAT,\n"
       "directory, sibling trees, every chain) and prints one line per defect:\n"
       "\n"
       "  SEVERITY<TAB>CODE<TAB>PATH<TAB>SECTOR<TAB>MESSAGE\n"
       "\n"
       "SEVERITY is 'error' (data lost or ambiguous) or 'warning' (an oddity\n"
       "readers tolerate); CODE is a short stable tag such as 'sector-shared';\n"
       "PATH is the entry concerned and SECTOR the sector (a mini sector for\n"
       "codes starting with 'mini'), '-' when none.  Prints nothing for a\n"
       "clean file.  Exits with 0 when there is no error, 2 when there is.\n",
       "", 1, 1, runCheck},
      {"props", "props FILE [PATH]",
       "Prints the document properties of the two summary streams\n"
       "(\\x05SummaryInformation and \\x05DocumentSummaryInformation), or of the\n"
       "property set stream at PATH, one a line:\n"
       "\n"
       "  STREAM<TAB>SECTION<TAB>ID<TAB>NAME<TAB>TYPE<TAB>VALUE\n"
       "\n"
       "SECTION is 'summary', 'doc_summary', 'user_defined' or the section's\n"
       "format id; NAME is the property's name ('-' when it has none), from\n"
       "the section's dictionary for user-defined properties; TYPE is the\n"
       "stored type ('lpstr', 'filetime', 'vector|variant'...).  Strings are\n"
       "quoted, dates are UTC, the edit time is hours:minutes:seconds, and\n"
       "binary values show their size and first 32 bytes in hex.\n",
       "", 1, 2, runProps},
  };
  return commands;
}

}  // namespace moxole
