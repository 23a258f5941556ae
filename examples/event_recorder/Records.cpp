// Builds the schema descriptions of the event recorder's records: one Meta
// per field width, one per table and one per read-side layout, each field a
// Member with its decorated name and its offset in the C struct.
#include "Records.h"

#include <cstddef>

namespace recorder {

const char* EventTypeName(int32_t type) {
  switch (type) {
    case kMotion:
      return "motion";
    case kLineCrossing:
      return "line crossing";
    case kIntrusion:
      return "intrusion";
    case kVideoLoss:
      return "video loss";
    case kTamper:
      return "tamper";
    default:
      return "unknown";
  }
}

int32_t SeverityOf(int32_t type) {
  switch (type) {
    case kIntrusion:
    case kTamper:
      return 3;
    case kLineCrossing:
    case kVideoLoss:
      return 2;
    default:
      return 1;
  }
}

RecorderSchema::RecorderSchema()
    : text_row_member("cText", offsetof(TextRow, text), &text_type) {
  int32_type.Init("int32", sizeof(int32_t));
  text_type.Init("char48", kTextSize);
  thumb_type.Init("thumb64", kThumbSize);
  config_name_type.Init("char32", kConfigNameSize);
  config_value_type.Init("char64", kConfigValueSize);

  // Column order is member order. With plain column names (analyze_name 1)
  // iId_pa becomes "Id INTEGER PRIMARY KEY autoincrement", cText "Text
  // CHAR(48)", bThumb "Thumb BLOB".
  event_meta.Init(kEventTable, sizeof(AlarmEvent));
  id = AddColumn(event_meta, "iId_pa", offsetof(AlarmEvent, id), &int32_type);
  time = AddColumn(event_meta, "iTime_n", offsetof(AlarmEvent, time), &int32_type);
  channel =
      AddColumn(event_meta, "iChannel_n", offsetof(AlarmEvent, channel), &int32_type);
  type = AddColumn(event_meta, "iType_n", offsetof(AlarmEvent, type), &int32_type);
  acked = AddColumn(event_meta, "iAcked_d", offsetof(AlarmEvent, acked), &int32_type);
  text = AddColumn(event_meta, "cText", offsetof(AlarmEvent, text), &text_type);
  thumb = AddColumn(event_meta, "bThumb", offsetof(AlarmEvent, thumb), &thumb_type);
  pending_severity_ = std::make_unique<Member>(
      "iSeverity", static_cast<unsigned int>(offsetof(AlarmEvent, severity)),
      &int32_type);

  config_meta.Init(kConfigTable, sizeof(ConfigEntry));
  config_name =
      AddColumn(config_meta, "cName_pn", offsetof(ConfigEntry, name), &config_name_type);
  config_value =
      AddColumn(config_meta, "cValue", offsetof(ConfigEntry, value), &config_value_type);
  config_updated =
      AddColumn(config_meta, "iUpdated", offsetof(ConfigEntry, updated), &int32_type);

  // Read-side layouts: the same decorated names and widths as the table's
  // members, at offsets of their own structs.
  brief_meta.Init("alarm_brief", sizeof(AlarmBrief));
  AddColumn(brief_meta, "iType_n", offsetof(AlarmBrief, type), &int32_type);
  AddColumn(brief_meta, "cText", offsetof(AlarmBrief, text), &text_type);
  AddColumn(brief_meta, "iTime_n", offsetof(AlarmBrief, time), &int32_type);

  severity_row_meta.Init("severity_row", sizeof(SeverityRow));
  AddColumn(severity_row_meta, "iId_pa", offsetof(SeverityRow, id), &int32_type);
  AddColumn(severity_row_meta, "iType_n", offsetof(SeverityRow, type), &int32_type);
  AddColumn(severity_row_meta, "iSeverity", offsetof(SeverityRow, severity), &int32_type);

  text_row_meta.Init("text_row", sizeof(TextRow));
  AddColumn(text_row_meta, "cText", offsetof(TextRow, text), &text_type);
}

bool RecorderSchema::AdoptSeverity() {
  if (!pending_severity_) return severity != nullptr;
  Member* member = pending_severity_.get();
  if (event_meta.AddMember(member) != 1) return false;
  pending_severity_.release();  // event_meta owns it now
  severity = member;
  return true;
}

Member* RecorderSchema::AddColumn(Meta& meta, const char* name, unsigned int offset,
                                  Meta* type) {
  auto member = std::make_unique<Member>(name, offset, type);
  if (meta.AddMember(member.get()) != 1) {
    ok_ = false;
    return nullptr;
  }
  return member.release();  // the Meta owns it now
}

}  // namespace recorder
