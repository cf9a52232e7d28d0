// Prints the property sets of top-level streams as Apache POI's HPSF reads
// them: for each section "S <format id>", then one tab-separated line per
// property "P <id> <name or -> <kind> <value>", kind being str, int, bytes
// (hex), date (milliseconds since 1970) or the Java class of anything else.
import java.io.File;
import java.io.InputStream;
import java.io.PrintStream;
import java.util.Date;
import java.util.Map;

import org.apache.poi.hpsf.Property;
import org.apache.poi.hpsf.PropertySet;
import org.apache.poi.hpsf.Section;
import org.apache.poi.poifs.filesystem.POIFSFileSystem;

public class PoiProperties {
  private static String describe(Object value) {
    if (value instanceof String) return "str\t" + value;
    if (value instanceof Integer || value instanceof Long || value instanceof Short) return "int\t" + value;
    if (value instanceof Boolean) return "bool\t" + value;
    if (value instanceof Date) return "date\t" + ((Date) value).getTime();
    if (value instanceof byte[]) {
      StringBuilder hex = new StringBuilder();
      for (byte b : (byte[]) value) hex.append(String.format("%02x", b));
      return "bytes\t" + hex;
    }
    return (value == null ? "null" : value.getClass().getSimpleName()) + "\t-";
  }

  public static void main(String[] args) throws Exception {
    PrintStream out = new PrintStream(System.out, true, "UTF-8");
    try (POIFSFileSystem fs = new POIFSFileSystem(new File(args[0]), true)) {
      for (int i = 1; i < args.length; ++i) {
        out.println("F " + args[i]);
        try (InputStream in = fs.getRoot().createDocumentInputStream(args[i])) {
          PropertySet set = new PropertySet(in);
          for (Section s : set.getSections()) {
            out.println("S " + s.getFormatID());
            Map<Long, String> names = s.getDictionary();
            for (Property p : s.getProperties()) {
              String name = names == null ? null : names.get(p.getID());
              out.println("P\t" + p.getID() + "\t" + (name == null ? "-" : name) + "\t" + describe(p.getValue()));
            }
          }
        }
      }
    }
  }
}
