// Lists a compound file as SheetJS cfb reads it, in the format of
// listing.py: "<kind> <size> <sha256> <path>" (sorted by the caller).
const fs = require("fs");
const crypto = require("crypto");
const CFB = require("cfb");

const file = CFB.read(fs.readFileSync(process.argv[2]), { type: "buffer" });
const lines = [];
file.FullPaths.forEach((full, i) => {
  const entry = file.FileIndex[i];
  // Unused directory slots are listed too, with type 0.
  if (entry.type === 5 || entry.type === 0) return;
  // Full paths start with the root's name and storages end with '/'.
  const path = full.slice(full.indexOf("/") + 1).replace(/\/$/, "");
  const data = entry.type === 2 ? Buffer.from(entry.content || []) : Buffer.alloc(0);
  const sha = crypto.createHash("sha256").update(data).digest("hex");
  lines.push(`${entry.type === 1 ? "d" : "f"} ${data.length} ${sha} ${path}`);
});
process.stdout.write(lines.map((l) => l + "\n").join(""));
