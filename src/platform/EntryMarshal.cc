#include "platform/EntryMarshal.h"

#include <cctype>

#include <nlohmann/json.hpp>

namespace zel {
namespace platform {
namespace {

using nlohmann::json;

NOK_ReturnStatus Refuse(std::string* error, const std::string& why) {
  if (error != nullptr) *error = why;
  return NOK_BAD_PARAM;
}

NOK_ReturnStatus Dump(const json& object, std::string* payload) {
  std::string text;
  try {
    text = object.dump();
  } catch (const json::exception&) {
    // A text member that is not valid UTF-8 cannot be carried.
    return NOK_BAD_PARAM;
  }
  if (text.size() > BRIX_PAYLOAD_MAX) return NOK_BAD_PARAM;
  *payload = std::move(text);
  return NOK_OK;
}

// Parses `payload` and checks that it was marshalled under `typeName`.
NOK_ReturnStatus Open(const std::string& payload, const char* typeName, json* object,
                      std::string* error) {
  *object = json::parse(payload, nullptr, /*allow_exceptions=*/false);
  if (object->is_discarded() || !object->is_object()) {
    return Refuse(error, "payload is not a JSON object");
  }
  auto type = object->find("type");
  if (type == object->end() || !type->is_string()) return Refuse(error, "payload names no type");
  if (type->get<std::string>() != typeName) {
    return Refuse(error, "payload of type '" + type->get<std::string>() + "', expected '" +
                             typeName + "'");
  }
  return NOK_OK;
}

NOK_ReturnStatus Text(const json& object, const char* member, std::string* value,
                      std::string* error) {
  auto found = object.find(member);
  if (found == object.end() || !found->is_string()) {
    return Refuse(error, std::string("payload lacks text member '") + member + "'");
  }
  *value = found->get<std::string>();
  return NOK_OK;
}

const char kHexDigits[] = "0123456789abcdef";

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

template <size_t N>
std::string ToHex(const std::array<uint8_t, N>& bytes) {
  std::string text;
  for (uint8_t byte : bytes) {
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xf];
  }
  return text;
}

// An address travels as exactly 2*N hex digits.
template <size_t N>
NOK_ReturnStatus Address(const json& object, const char* member, std::array<uint8_t, N>* bytes,
                         std::string* error) {
  std::string text;
  NOK_ReturnStatus status = Text(object, member, &text, error);
  if (status != NOK_OK) return status;
  std::array<uint8_t, N> parsed{};
  bool valid = text.size() == 2 * N;
  for (size_t i = 0; valid && i < N; ++i) {
    const int high = HexValue(text[2 * i]);
    const int low = HexValue(text[2 * i + 1]);
    valid = high >= 0 && low >= 0;
    if (valid) parsed[i] = static_cast<uint8_t>(high << 4 | low);
  }
  if (!valid) {
    return Refuse(error, std::string("member '") + member + "' is not " + std::to_string(N) +
                             " bytes of hex");
  }
  *bytes = parsed;
  return NOK_OK;
}

}  // namespace

NOK_ReturnStatus MarshalConfigRecord(const ZelConfigRecord& record, std::string* payload) {
  return Dump({{"type", BRIX_NAME_ORVA_ISCSI_TARGET_CONFIG}, {"generation", record.generation}},
              payload);
}

NOK_ReturnStatus MarshalInterfaceRecord(const ZelInterfaceRecord& record, std::string* payload) {
  return Dump({{"type", BRIX_NAME_ORVA_ISCSI_INTERFACE_MAP},
               {"name", record.name},
               {"ipv4", ToHex(record.ipv4)},
               {"ipv6", ToHex(record.ipv6)}},
              payload);
}

NOK_ReturnStatus MarshalStorageObjectRecord(const StorageObjectRecord& record,
                                            std::string* payload) {
  json object = {{"type", BRIX_NAME_STORAGE_OBJECT},
                 {"ownerHost", record.ownerHost},
                 {"policy", record.policy}};
  if (!record.extParams.empty()) object["extParams"] = record.extParams;
  return Dump(object, payload);
}

NOK_ReturnStatus UnmarshalConfigRecord(const std::string& payload, ZelConfigRecord* record,
                                       std::string* error) {
  json object;
  NOK_ReturnStatus status = Open(payload, BRIX_NAME_ORVA_ISCSI_TARGET_CONFIG, &object, error);
  if (status != NOK_OK) return status;
  auto generation = object.find("generation");
  if (generation == object.end() || !generation->is_number_unsigned()) {
    return Refuse(error, "payload lacks unsigned member 'generation'");
  }
  record->generation = generation->get<uint64_t>();
  return NOK_OK;
}

NOK_ReturnStatus UnmarshalInterfaceRecord(const std::string& payload, ZelInterfaceRecord* record,
                                          std::string* error) {
  json object;
  ZelInterfaceRecord parsed;
  NOK_ReturnStatus status = Open(payload, BRIX_NAME_ORVA_ISCSI_INTERFACE_MAP, &object, error);
  if (status == NOK_OK) status = Text(object, "name", &parsed.name, error);
  if (status == NOK_OK) status = Address(object, "ipv4", &parsed.ipv4, error);
  if (status == NOK_OK) status = Address(object, "ipv6", &parsed.ipv6, error);
  if (status == NOK_OK) *record = std::move(parsed);
  return status;
}

NOK_ReturnStatus UnmarshalStorageObjectRecord(const std::string& payload,
                                              StorageObjectRecord* record, std::string* error) {
  json object;
  StorageObjectRecord parsed;
  std::string owner;
  NOK_ReturnStatus status = Open(payload, BRIX_NAME_STORAGE_OBJECT, &object, error);
  if (status == NOK_OK) status = Text(object, "ownerHost", &owner, error);
  if (status == NOK_OK && !ParseUuidText(owner, &parsed.ownerHost)) {
    status = Refuse(error, "member 'ownerHost' is not a UUID: '" + owner + "'");
  }
  if (status == NOK_OK) status = Text(object, "policy", &parsed.policy, error);
  const auto params = object.find("extParams");
  if (status == NOK_OK && params != object.end()) {
    if (!params->is_object()) status = Refuse(error, "member 'extParams' is not an object");
    for (auto item = params->begin(); status == NOK_OK && item != params->end(); ++item) {
      if (!item->is_string()) {
        status = Refuse(error, "extended parameter '" + item.key() + "' is not text");
      } else {
        parsed.extParams[item.key()] = item->get<std::string>();
      }
    }
  }
  if (status == NOK_OK) *record = std::move(parsed);
  return status;
}

bool ParseUuidText(const std::string& text, std::string* canonical) {
  if (text.size() != 36) return false;
  std::string lower(text);
  for (size_t i = 0; i < lower.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? lower[i] != '-' : HexValue(lower[i]) < 0) return false;
    lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(lower[i])));
  }
  *canonical = std::move(lower);
  return true;
}

}  // namespace platform
}  // namespace zel
