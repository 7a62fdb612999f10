// Writes the seeds of fuzz_command_server and fuzz_convert, every message
// written by the bag library:
//
//   make_seeds DIRECTORY     (tests/fuzz: writes DIRECTORY/<target>/seeds/*)
//
// scripts/fuzz.sh --write-seeds builds and runs it; commit what it writes.
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "command_server.h"
#include "vxai.h"
#include "vxqi.h"

namespace {

using Filler = std::function<void(VXHBAG)>;

void check(int32_t compCode, int32_t reason, const char *call) {
  if (compCode != CC_OK) {
    std::fprintf(stderr, "make_seeds: %s failed with reason %d\n", call, reason);
    std::exit(1);
  }
}

void addInteger(VXHBAG bag, int32_t selector, int32_t value) {
  int32_t cc, rc;
  vxAddInteger(bag, selector, value, &cc, &rc);
  check(cc, rc, "vxAddInteger");
}

void addString(VXHBAG bag, int32_t selector, const std::string &value) {
  int32_t cc, rc;
  vxAddString(bag, selector, static_cast<int32_t>(value.size()), value.data(), &cc, &rc);
  check(cc, rc, "vxAddString");
}

void setCcsid(VXHBAG bag, int32_t ccsid) {
  int32_t cc, rc;
  vxSetInteger(bag, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, ccsid, &cc, &rc);
  check(cc, rc, "vxSetInteger of the character set");
}

// A bag of the given options, filled, written as a message.
std::string message(int32_t options, int32_t command, const Filler &fill) {
  int32_t cc, rc;
  VXHBAG bag = BAG_NONE;
  vxCreateBag(options, &bag, &cc, &rc);
  check(cc, rc, "vxCreateBag");
  if (command != 0) {
    vxSetInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, command, &cc, &rc);
    check(cc, rc, "vxSetInteger of the command");
  }
  if (fill) fill(bag);
  int32_t length = 0;
  vxBagToBuffer(BAG_NONE, bag, 0, nullptr, &length, &cc, &rc);
  std::string bytes(static_cast<size_t>(length), '\0');
  vxBagToBuffer(BAG_NONE, bag, length, bytes.data(), &length, &cc, &rc);
  check(cc, rc, "vxBagToBuffer");
  vxDeleteBag(&bag, &cc, &rc);
  return bytes;
}

void write(const std::string &directory, const std::string &name, const std::string &bytes) {
  const std::string path = directory + "/" + name;
  FILE *file = std::fopen(path.c_str(), "wb");
  if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
      std::fclose(file) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
}

void makeDirectory(const std::string &path) {
  for (size_t slash = 1; slash <= path.size(); ++slash) {
    if (slash != path.size() && path[slash] != '/') continue;
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
}

// ----- fuzz_command_server: descriptor prefix, then the request ---------------------

// The prefix of fuzz_command_server's inputs (see the target).
std::string prefix(uint8_t b0, uint8_t b1 = 0, uint8_t b2 = 0, const std::string &replyTo = "") {
  std::string bytes = {static_cast<char>(b0), static_cast<char>(b1), static_cast<char>(b2),
                       static_cast<char>(replyTo.size())};
  return bytes + replyTo;
}

std::string request(int32_t command, const Filler &fill = {}) {
  return message(BAG_OPT_ADMIN_BAG, command, fill);
}

Filler named(const std::string &name, int32_t queueType, const Filler &more = {}) {
  return [=](VXHBAG bag) {
    addString(bag, ATTR_Q_NAME, name);
    if (queueType != 0) addInteger(bag, ATTR_Q_TYPE, queueType);
    if (more) more(bag);
  };
}

void commandServerSeeds(const std::string &directory) {
  constexpr uint8_t kRequestToFuzzReply = 0x00;
  const std::string plain = prefix(kRequestToFuzzReply);
  const Filler allAttributes = [](VXHBAG bag) {
    addString(bag, ATTR_Q_DESC, "made by a seed");
    addInteger(bag, ATTR_DEF_PERSISTENCE, 1);
    addInteger(bag, ATTR_DEF_PRIORITY, 5);
    addInteger(bag, ATTR_INHIBIT_GET, INHIBIT_ALLOWED);
    addInteger(bag, ATTR_INHIBIT_PUT, INHIBIT_INHIBITED);
    addInteger(bag, ATTR_MAX_MSG_LENGTH, 1000);
    addInteger(bag, ATTR_MAX_Q_DEPTH, 10);
  };
  write(directory, "ping", plain + request(CMD_PING));
  write(directory, "inquire_qmgr", plain + request(CMD_INQUIRE_Q_MGR));
  write(directory, "inquire_qmgr_attrs", plain + request(CMD_INQUIRE_Q_MGR, [](VXHBAG bag) {
                                           addInteger(bag, PARM_Q_MGR_ATTRS, ATTR_Q_MGR_NAME);
                                           addInteger(bag, PARM_Q_MGR_ATTRS,
                                                      ATTR_CODED_CHAR_SET_ID);
                                         }));
  write(directory, "create_local", plain + request(CMD_CREATE_Q, named("FUZZ.Q1", QTYPE_LOCAL)));
  write(directory, "create_model_all",
        plain + request(CMD_CREATE_Q, named("FUZZ.MODEL", QTYPE_MODEL, allAttributes)));
  write(directory, "change_local_queue",
        plain +
            request(CMD_CHANGE_Q, named("SYSTEM.DEFAULT.LOCAL.QUEUE", QTYPE_LOCAL, allAttributes)));
  write(directory, "change_command_queue_get_inhibited",
        plain +
            request(CMD_CHANGE_Q, named("SYSTEM.ADMIN.COMMAND.QUEUE", QTYPE_LOCAL, [](VXHBAG bag) {
                      addInteger(bag, ATTR_INHIBIT_GET, INHIBIT_INHIBITED);
                    })));
  write(directory, "change_model_put_inhibited",
        plain +
            request(CMD_CHANGE_Q, named("SYSTEM.DEFAULT.MODEL.QUEUE", QTYPE_MODEL, [](VXHBAG bag) {
                      addInteger(bag, ATTR_INHIBIT_PUT, INHIBIT_INHIBITED);
                    })));
  write(directory, "copy_queue", plain + request(CMD_COPY_Q, [](VXHBAG bag) {
                                   addString(bag, PARM_FROM_Q_NAME, "SYSTEM.DEFAULT.LOCAL.QUEUE");
                                   addString(bag, PARM_TO_Q_NAME, "FUZZ.COPY");
                                   addInteger(bag, ATTR_Q_TYPE, QTYPE_LOCAL);
                                   addInteger(bag, ATTR_MAX_Q_DEPTH, 3);
                                 }));
  write(directory, "delete_reply_queue",
        plain + request(CMD_DELETE_Q, named("FUZZ.REPLY", 0,
                                            [](VXHBAG bag) { addInteger(bag, PARM_PURGE, 1); })));
  write(directory, "delete_model_queue",
        plain + request(CMD_DELETE_Q, named("SYSTEM.DEFAULT.MODEL.QUEUE", 0)));
  write(directory, "clear_queue",
        plain + request(CMD_CLEAR_Q, named("SYSTEM.DEFAULT.LOCAL.QUEUE", 0)));
  write(directory, "inquire_queues_all",
        plain + request(CMD_INQUIRE_Q, named("*", 0, [](VXHBAG bag) {
                          addInteger(bag, PARM_Q_ATTRS, PARM_ALL);
                        })));
  write(directory, "inquire_queue_some",
        plain + request(CMD_INQUIRE_Q, named("SYSTEM.*", QTYPE_LOCAL, [](VXHBAG bag) {
                          addInteger(bag, PARM_Q_ATTRS, ATTR_CURRENT_DEPTH);
                          addInteger(bag, PARM_Q_ATTRS, ATTR_Q_DESC);
                        })));
  write(directory, "inquire_names", plain + request(CMD_INQUIRE_Q_NAMES, named("*", 0)));
  write(directory, "inquire_status",
        plain + request(CMD_INQUIRE_Q_STATUS, named("*", 0, [](VXHBAG bag) {
                          addInteger(bag, PARM_Q_STATUS_ATTRS, PARM_ALL);
                        })));
  write(directory, "inquire_status_inquiry_items",
        plain + message(BAG_OPT_ADMIN_BAG | BAG_OPT_LIST_FORM_ALLOWED, CMD_INQUIRE_Q_STATUS,
                        named("SYSTEM.*", 0, [](VXHBAG bag) {
                          addInteger(bag, SEL_INQUIRY_ITEM, ATTR_OPEN_INPUT_COUNT);
                          addInteger(bag, SEL_INQUIRY_ITEM, ATTR_CURRENT_DEPTH);
                        })));
  write(directory, "unknown_command", plain + request(99));
  write(
      directory, "unknown_parameter",
      plain + request(CMD_CLEAR_Q, named("FUZZ.Q", 0, [](VXHBAG bag) { addInteger(bag, 77, 1); })));
  // Descriptors: a datagram with no reply-to queue, a request answered on
  // the model queue, one whose format is not an administration message,
  // another encoding, a character set, an expiry, a reply-to name of the
  // input's own, a persistent request, another queue manager.
  const std::string ping = request(CMD_PING);
  write(directory, "datagram_no_reply", prefix(0x01 | 0x40) + ping);
  write(directory, "reply_to_model", prefix(0xC0, 0, 1) + ping);
  write(directory, "reply_to_command_queue", prefix(0xC0, 0, 0) + ping);
  write(directory, "format_string", prefix(4 << 3) + ping);
  write(directory, "format_pcf", prefix(1 << 3) + request(CMD_INQUIRE_Q_NAMES, named("*", 0)));
  write(directory, "encoding_273", prefix(0, 1 << 2) + ping);
  write(directory, "ccsid_500", prefix(0, 3 << 4) + ping);
  write(directory, "expiry", prefix(0, 0x80, 50) + ping);
  write(directory, "reply_to_named", prefix(0x80, 0, 0, "FUZZ.REPLY") + ping);
  write(directory, "persistent", prefix(0x04, 1) + ping);
  write(directory, "other_qmgr", prefix(0, 2) + ping);
  write(directory, "not_pcf", prefix(0) + std::string("PING THE SERVER"));
}

// ----- fuzz_convert: source and target set, then the message ------------------------

// Indexes of fuzz_convert's table: 37, 367, 437, 500, 819, 850, 923, 1047,
// 1208, 1252, 0, 1200.
std::string sets(uint8_t from, uint8_t to) {
  return std::string{static_cast<char>(from), static_cast<char>(to)};
}

void convertSeeds(const std::string &directory) {
  const std::string latin1 = "caf\xe9 na\xefve \xa4 \xff";
  const std::string utf8 = "caf\xc3\xa9 \xe2\x82\xac";
  write(directory, "reply_819_to_1208",
        sets(4, 8) + message(BAG_OPT_ADMIN_BAG, CMD_INQUIRE_Q, [&](VXHBAG bag) {
          setCcsid(bag, 819);
          addString(bag, ATTR_Q_NAME, "Q1");
          addString(bag, ATTR_Q_DESC, latin1);
          addInteger(bag, ATTR_Q_TYPE, 1);
        }));
  write(directory, "utf8_to_500", sets(8, 3) + message(0, 0, [&](VXHBAG bag) {
                                    setCcsid(bag, 1208);
                                    addString(bag, 2001, utf8);
                                    addInteger(bag, 1, 7);
                                  }));
  write(directory, "two_sets_to_37", sets(4, 0) + message(0, 0, [&](VXHBAG bag) {
                                       setCcsid(bag, 850);
                                       addString(bag, 2001, "box \xb3\xc4");
                                       setCcsid(bag, 1047);
                                       addString(bag, 2002, "\xc1\xc2\xc3");
                                       setCcsid(bag, 0);
                                       addString(bag, 2003, latin1);
                                     }));
  write(directory, "list_437_to_1252",
        sets(2, 9) + message(BAG_OPT_LIST_FORM_ALLOWED, 0, [&](VXHBAG bag) {
          setCcsid(bag, 437);
          addString(bag, 3011, "FIRST");
          addString(bag, 3011, "SECOND\x82");
          addString(bag, 3011, "");
          addInteger(bag, 1002, 1);
          addInteger(bag, 1002, 2);
        }));
  write(directory, "list_923_to_1208",
        sets(6, 8) + message(BAG_OPT_LIST_FORM_ALLOWED, 0, [&](VXHBAG bag) {
          setCcsid(bag, 923);
          addString(bag, 3011, "\xa4uro");
          addString(bag, 3011, "x");
        }));
  write(directory, "ascii_to_ebcdic", sets(1, 7) + message(0, 0, [&](VXHBAG bag) {
                                        setCcsid(bag, 367);
                                        addString(bag, 2001, "PLAIN ASCII");
                                      }));
  write(directory, "already_in_target", sets(8, 8) + message(0, 0, [&](VXHBAG bag) {
                                          setCcsid(bag, 1208);
                                          addString(bag, 2001, utf8);
                                        }));
  write(directory, "unknown_set",
        sets(11, 8) + message(0, 0, [&](VXHBAG bag) { addString(bag, 2001, "x"); }));
  write(directory, "integers_only",
        sets(0, 3) + message(BAG_OPT_LIST_FORM_ALLOWED, 0, [&](VXHBAG bag) {
          addInteger(bag, 1, 7);
          addInteger(bag, 5, 1);
          addInteger(bag, 5, 2);
        }));
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s tests/fuzz\n", argv[0]);
    return 2;
  }
  const std::string root = argv[1];
  makeDirectory(root + "/command_server/seeds");
  makeDirectory(root + "/convert/seeds");
  commandServerSeeds(root + "/command_server/seeds");
  convertSeeds(root + "/convert/seeds");
  std::printf("seeds written under %s\n", root.c_str());
  return 0;
}
