#include "ole_builder.h"

#include <gsf/gsf-outfile-msole.h>
#include <gsf/gsf-outfile.h>
#include <gsf/gsf-output-memory.h>
#include <gsf/gsf-utils.h>

#include <mutex>

namespace kln {

namespace {
Out &Le32(Out &o, uint32_t v) { return o.u8(v).u8(v >> 8).u8(v >> 16).u8(v >> 24); }
}  // namespace

Bytes CompoundFile(const std::vector<std::pair<std::string, Bytes>> &streams) {
  static std::once_flag once;
  std::call_once(once, [] { gsf_init(); });
  GsfOutput *mem = gsf_output_memory_new();
  GsfOutfile *root = gsf_outfile_msole_new(mem);
  for (const auto &[name, data] : streams) {
    GsfOutput *child = gsf_outfile_new_child(root, name.c_str(), FALSE);
    gsf_output_write(child, data.size(), data.data());
    gsf_output_close(child);
    g_object_unref(child);
  }
  gsf_output_close(GSF_OUTPUT(root));
  g_object_unref(root);
  const guint8 *p = gsf_output_memory_get_bytes(GSF_OUTPUT_MEMORY(mem));
  Bytes bytes(p, p + gsf_output_size(mem));  // closing the compound file closed mem
  g_object_unref(mem);
  return bytes;
}

Bytes PackageStream(const Bytes &data, const std::string &label) {
  const std::string source = "C:\\docs\\" + label;
  const std::string temp = "C:\\temp\\" + label;
  Out body;
  body.u8(2).u8(0);  // type
  body.str(label).u8(0).str(source).u8(0);
  Le32(body, 0x00030000);
  Le32(body, static_cast<uint32_t>(temp.size() + 1)).str(temp).u8(0);
  Le32(body, static_cast<uint32_t>(data.size())).raw(data);
  Out stream;
  Le32(stream, static_cast<uint32_t>(body.size())).raw(body.done());
  return stream.done();
}

Bytes PackagedObject(const Bytes &data, const std::string &label) {
  return CompoundFile({{"\x01Ole10Native", PackageStream(data, label)}});
}

DataSet DrawingDataSet::build(uint16_t seq) const {
  DataSet set;
  set.kind = 0;
  set.seq = seq;
  Out rec;
  rec.u16(objectCount.value_or(static_cast<uint16_t>(objects.size()))).zeros(4).u16(entryStride);
  rec.zeros(84 - rec.size());  // entries start at record offset 88
  for (const DrawingObject &o : objects) rec.u8(o.kind).u8(0).u8(o.subkind).zeros(entryStride - 3);
  set.recordBody = rec.done();
  if (!blocks) return set;

  Out c;
  c.u32(static_cast<uint32_t>(leadingLength)).u16(pairs).zeros(leadingLength > 2 ? leadingLength - 2 : 0);
  for (int i = 0; i < 2 * pairs; ++i) c.block(Bytes(3, 0x11));
  for (const DrawingObject &o : objects) {
    const bool header = (o.kind == 8 && (o.subkind == 5 || o.subkind == 0)) || (o.kind == 1 && o.subkind == 1);
    if (!header) continue;
    c.block(Bytes(6, 0x22));  // the object's header block
    if (o.kind == 8 && o.subkind == 0) c.block(Bytes(5, 0x33));
    if (o.kind == 8 && o.subkind == 5) {
      c.u32(o.oleLength.value_or(static_cast<uint32_t>(o.object.size() + 24))).zeros(24).raw(o.object);
    }
  }
  set.content = c.done();
  return set;
}

}  // namespace kln
