// Lists a compound file as Apache POI reads it, in the format of
// listing.py: "<kind> <size> <sha256> <path>", sorted.
import java.io.File;
import java.io.PrintStream;
import java.security.MessageDigest;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Iterator;
import java.util.List;

import org.apache.poi.poifs.filesystem.DirectoryEntry;
import org.apache.poi.poifs.filesystem.DocumentEntry;
import org.apache.poi.poifs.filesystem.DocumentInputStream;
import org.apache.poi.poifs.filesystem.Entry;
import org.apache.poi.poifs.filesystem.POIFSFileSystem;

public class PoiListing {
  private static final List<String> lines = new ArrayList<>();

  private static String line(String kind, byte[] data, String path) throws Exception {
    StringBuilder hex = new StringBuilder();
    for (byte b : MessageDigest.getInstance("SHA-256").digest(data)) hex.append(String.format("%02x", b));
    return kind + " " + data.length + " " + hex + " " + path;
  }

  private static void walk(DirectoryEntry dir, String prefix) throws Exception {
    for (Iterator<Entry> it = dir.getEntries(); it.hasNext();) {
      Entry e = it.next();
      String path = prefix.isEmpty() ? e.getName() : prefix + "/" + e.getName();
      if (e instanceof DirectoryEntry) {
        lines.add(line("d", new byte[0], path));
        walk((DirectoryEntry) e, path);
      } else {
        DocumentEntry d = (DocumentEntry) e;
        byte[] data = new byte[d.getSize()];
        try (DocumentInputStream in = new DocumentInputStream(d)) {
          in.readFully(data);
        }
        lines.add(line("f", data, path));
      }
    }
  }

  public static void main(String[] args) throws Exception {
    try (POIFSFileSystem fs = new POIFSFileSystem(new File(args[0]), true)) {
      walk(fs.getRoot(), "");
    }
    Collections.sort(lines);
    PrintStream out = new PrintStream(System.out, true, "UTF-8");
    for (String l : lines) out.println(l);
  }
}
