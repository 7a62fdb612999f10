// Bags as messages on a queue of the in-process queue manager: vxPutBag and
// vxGetBag, their checks in order, the formats and encodings they accept, the
// buffer that grows for a long message, and a get without a bag that throws
// the message away.
#include <cstring>
#include <string>
#include <vector>

#include "qm_admin.h"
#include "qm_test.h"
#include "vxqi.h"
#include "vxtest.h"

namespace {

using vxtest::Item;
using Lines = std::vector<std::string>;

constexpr char kQueue[] = "BAGS.IN";

class BagMessageTest : public vxtest::BagTest {
 protected:
  void SetUp() override {
    vxqm::test::reset("QM1");
    ASSERT_EQ(vxqm::admin::createQueue("QM1", kQueue, {}), 0);
    BagTest::SetUp();
    char name[48] = "QM1";
    int32_t cc, rc;
    VXCONN(name, &hconn_, &cc, &rc);
    ASSERT_OK(cc, rc);
    vxOBJDESC od = OD_DEFAULT;
    memcpy(od.objectName, kQueue, sizeof kQueue);
    VXOPEN(hconn_, &od, OPEN_INPUT_SHARED | OPEN_OUTPUT | OPEN_BROWSE, &hobj_, &cc, &rc);
    ASSERT_OK(cc, rc);
    memcpy(md_.format, VX_FORMAT_PCF, 8);
    pmo_.options = PUT_NO_SYNCPOINT;
    gmo_.options = GET_NO_SYNCPOINT;
  }
  void TearDown() override {
    int32_t cc, rc;
    VXDISC(&hconn_, &cc, &rc);
    BagTest::TearDown();
  }

  // A bag of user items: an integer and a string of `length` characters.
  VXHBAG bagWith(int32_t length) {
    VXHBAG bag = newBag(0);
    int32_t cc, rc;
    vxAddInteger(bag, 1, 42, &cc, &rc);
    std::string text(static_cast<size_t>(length), 'x');
    vxAddString(bag, 2, length, text.data(), &cc, &rc);
    return bag;
  }

  void put(VXHBAG bag, vxMSGDESC md) {
    int32_t cc, rc;
    vxPutBag(hconn_, hobj_, &md, &pmo_, bag, &cc, &rc);
    ASSERT_OK(cc, rc);
  }

  // Puts raw bytes as a message of this format.
  void putBytes(const std::vector<char> &bytes, const char *format) {
    vxMSGDESC md = MD_DEFAULT;
    memcpy(md.format, format, 8);
    int32_t cc, rc;
    VXPUT(hconn_, hobj_, &md, &pmo_, static_cast<int32_t>(bytes.size()),
          const_cast<char *>(bytes.data()), &cc, &rc);
    ASSERT_OK(cc, rc);
  }

  // The bag holds what bagWith(length) made.
  void expectMadeWith(VXHBAG bag, int32_t length) {
    int32_t value = 0, cc, rc;
    vxInquireInteger(bag, 1, ITEM_INDEX_NONE, &value, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(value, 42);
    std::vector<char> text(static_cast<size_t>(length) + 1);
    int32_t stringLength = 0;
    vxInquireString(bag, 2, ITEM_INDEX_NONE, static_cast<int32_t>(text.size()), text.data(),
                    &stringLength, nullptr, &cc, &rc);
    EXPECT_OK(cc, rc);
    EXPECT_EQ(stringLength, length);
    EXPECT_EQ(std::string(text.data(), static_cast<size_t>(length)),
              std::string(static_cast<size_t>(length), 'x'));
  }

  int32_t depth() { return vxqm::test::messageCount("QM1", kQueue); }

  int32_t hconn_ = 0, hobj_ = 0;
  int32_t cc_ = -1, rc_ = -1;
  vxMSGDESC md_ = MD_DEFAULT;
  vxPUTOPTS pmo_ = PMO_DEFAULT;
  vxGETOPTS gmo_ = GMO_DEFAULT;
};

// ----- Put -----------------------------------------------------------------------------

TEST_F(BagMessageTest, APutBagComesBackAsTheSameItems) {
  VXHBAG sent = bagWith(5);
  put(sent, md_);
  EXPECT_EQ(depth(), 1);
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  ASSERT_OK(cc_, rc_);
  EXPECT_EQ(vxtest::itemsOf(received), vxtest::itemsOf(sent));
  EXPECT_EQ(std::string(md.format, 8), VX_FORMAT_PCF);
  EXPECT_EQ(depth(), 0);
}

TEST_F(BagMessageTest, TheDescriptorIsPutAsTheCallerFilledIt) {
  VXHBAG sent = newBag(BAG_OPT_ADMIN_BAG);  // the writer would propose a request
  md_.msgType = MSGTYPE_DATAGRAM;
  memcpy(md_.format, VX_FORMAT_EVENT, 8);
  md_.priority = 7;
  put(sent, md_);
  vxMSGDESC md = MD_DEFAULT;
  VXHBAG received = newBag(0);
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  ASSERT_OK(cc_, rc_);
  EXPECT_EQ(md.msgType, MSGTYPE_DATAGRAM);
  EXPECT_EQ(std::string(md.format, 8), VX_FORMAT_EVENT);
  EXPECT_EQ(md.priority, 7);
}

TEST_F(BagMessageTest, PutChecksRunInOrder) {
  VXHBAG bag = bagWith(1);
  vxMSGDESC md = md_;
  vxPutBag(hconn_, hobj_, &md, &pmo_, BAG_NONE, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxPutBag(hconn_, hobj_, nullptr, &pmo_, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_MSG_DESCRIPTOR_ERROR);
  vxtest::ProtectedPages pages;
  vxPutBag(hconn_, hobj_, pages.readOnly, &pmo_, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_MSG_DESCRIPTOR_ERROR);
  // The encoding is tested before the format.
  md.encoding = 273;
  memcpy(md.format, "        ", 8);
  vxPutBag(hconn_, hobj_, &md, &pmo_, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_ENCODING_NOT_SUPPORTED);
  md.encoding = ENCODING_NATIVE;
  vxPutBag(hconn_, hobj_, &md, &pmo_, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_FORMAT_NOT_SUPPORTED);
  memcpy(md.format, "vxpcf   ", 8);  // compared byte for byte
  vxPutBag(hconn_, hobj_, &md, &pmo_, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_FORMAT_NOT_SUPPORTED);
  EXPECT_EQ(depth(), 0);
}

TEST_F(BagMessageTest, EachBagFormatIsAccepted) {
  VXHBAG bag = bagWith(1);
  for (const char *format : {VX_FORMAT_ADMIN, VX_FORMAT_EVENT, VX_FORMAT_PCF}) {
    vxMSGDESC md = MD_DEFAULT;
    memcpy(md.format, format, 8);
    vxPutBag(hconn_, hobj_, &md, &pmo_, bag, &cc_, &rc_);
    EXPECT_OK(cc_, rc_) << format;
  }
  EXPECT_EQ(depth(), 3);
}

TEST_F(BagMessageTest, AQueueManagerRefusalOfThePutPassesThroughAndFreesTheBuffer) {
  ASSERT_TRUE(vxqm::test::failNext("qmPUT", 1, CC_FAILED, RC_Q_FULL));
  vxPutBag(hconn_, hobj_, &md_, &pmo_, bagWith(1), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_Q_FULL);
  EXPECT_EQ(depth(), 0);
}

TEST_F(BagMessageTest, ABagThatCannotBeWrittenPutsNothing) {
  VXHBAG bag = newBag(0);
  zaiBAG *record = zaiDecodeHandle(bag);
  VXHBAG inner = newSystemBag();
  int32_t cc, rc;
  zaiAddBag(record, 4001, inner, &cc, &rc);
  ASSERT_OK(cc, rc);
  systemBags_.pop_back();
  vxPutBag(hconn_, hobj_, &md_, &pmo_, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_NESTED_BAG_NOT_SUPPORTED);
  EXPECT_TRUE(vxtest::releaseKeptBlock(ZAIFN_zaiBagToPCFMsgInVXAIBuffer));
  EXPECT_EQ(depth(), 0);
}

TEST_F(BagMessageTest, PutTraceRefersToTheQueueCall) {
  VXHBAG bag = bagWith(1);
  const vxMSGDESC before = md_;  // the put writes the new message id into it
  vxtest::TraceCapture trace;
  vxPutBag(hconn_, hobj_, &md_, &pmo_, bag, &cc_, &rc_);
  ASSERT_OK(cc_, rc_);
  using vxtest::dataOf;
  Lines lines = trace.lines();
  Lines entry = {"__________",
                 "vxPutBag >>",
                 "Hconn:",
                 dataOf(hconn_),
                 "Hobj:",
                 dataOf(hobj_),
                 "Msgdesc:",
                 dataOf(&before, sizeof before),
                 "Putmsgopts    : Refer to VXPUT",
                 "Bag:",
                 dataOf(bag),
                 "Compcode      : Output Parm",
                 "Reason        : Output Parm"};
  ASSERT_GE(lines.size(), entry.size());
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + static_cast<long>(entry.size())), entry);
  Lines exit = {"__________",
                "vxPutBag <<",
                "OptionsBag    : Input  Parm",
                "Hconn         : Input  Parm",
                "Hobj          : Input  Parm",
                "Msgdesc       : Refer to VXPUT",
                "Putmsgopts    : Refer to VXPUT",
                "Bag           : Input  Parm",
                "Compcode:",
                dataOf(CC_OK),
                "Reason:",
                dataOf(RC_NONE)};
  EXPECT_EQ(Lines(lines.end() - static_cast<long>(exit.size()), lines.end()), exit);
}

// ----- Get -----------------------------------------------------------------------------

TEST_F(BagMessageTest, GetChecksRunInOrder) {
  put(bagWith(1), md_);
  VXHBAG bag = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  vxGetBag(hconn_, hobj_, &md, &gmo_, zeroedHandle(), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_BAG_HANDLE_ERROR);
  vxGetBag(hconn_, hobj_, &md, &gmo_, newSystemBag(), &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_SYSTEM_BAG_NOT_ALTERABLE);
  vxGetBag(hconn_, hobj_, nullptr, &gmo_, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_MSG_DESCRIPTOR_ERROR);
  vxGetBag(hconn_, hobj_, &md, nullptr, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_GET_OPTIONS_ERROR);
  vxGETOPTS gmo = gmo_;
  gmo.options = GET_CONVERT;
  md.encoding = 273;
  vxGetBag(hconn_, hobj_, &md, &gmo, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_ENCODING_NOT_SUPPORTED);
  md.encoding = ENCODING_NATIVE;
  gmo.options = GET_ACCEPT_TRUNCATED_MSG;
  vxGetBag(hconn_, hobj_, &md, &gmo, bag, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_OPTIONS_ERROR);
  EXPECT_EQ(depth(), 1);  // nothing was got
}

TEST_F(BagMessageTest, ALongMessageIsGotAfterOneTruncation) {
  const int32_t length = 6000 - 36 - 16 - 20;
  put(bagWith(length), md_);
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  vxtest::TraceCapture trace(0x1, /*threadTrace=*/true);
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  ASSERT_OK(cc_, rc_);
  expectMadeWith(received, length);
  int32_t truncated = 0, got = 0;
  for (const std::string &line : trace.lines()) {
    if (line == "} VXGET rc=2080") ++truncated;
    if (line == "} VXGET rc=0") ++got;
  }
  EXPECT_EQ(truncated, 1);
  EXPECT_EQ(got, 1);
}

TEST_F(BagMessageTest, TheSecondGetSelectsWithTheCallersIds) {
  // Two long messages; the caller asks for the second by its correlation id.
  vxMSGDESC first = md_, second = md_;
  memcpy(first.correlId, "FIRST", 5);
  memcpy(second.correlId, "SECOND", 6);
  put(bagWith(5000), first);
  put(bagWith(5001), second);
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  memcpy(md.correlId, "SECOND", 6);
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  ASSERT_OK(cc_, rc_);
  expectMadeWith(received, 5001);
  EXPECT_EQ(depth(), 1);
}

TEST_F(BagMessageTest, WithoutABagTheMessageIsThrownAway) {
  put(bagWith(5000), md_);
  gmo_.options = GET_NO_SYNCPOINT | GET_WAIT;
  vxMSGDESC md = MD_DEFAULT;
  vxGetBag(hconn_, hobj_, &md, &gmo_, BAG_NONE, &cc_, &rc_);
  EXPECT_OK(cc_, rc_);
  EXPECT_EQ(gmo_.options, GET_NO_SYNCPOINT | GET_WAIT);  // as the caller left it
  EXPECT_EQ(depth(), 0);
}

TEST_F(BagMessageTest, AMessageOfAnotherFormatIsConsumedAndRefused) {
  VXHBAG sent = bagWith(3);
  std::vector<char> bytes(4096);
  int32_t length = 0;
  vxBagToBuffer(BAG_NONE, sent, 4096, bytes.data(), &length, &cc_, &rc_);
  ASSERT_OK(cc_, rc_);
  bytes.resize(static_cast<size_t>(length));
  putBytes(bytes, "        ");
  VXHBAG received = newBag(0);
  int32_t cc;
  vxAddInteger(received, 9, 9, &cc, &rc_);
  std::vector<Item> before = vxtest::itemsOf(received);
  vxMSGDESC md = MD_DEFAULT;
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_FORMAT_NOT_SUPPORTED);
  EXPECT_EQ(depth(), 0);
  EXPECT_EQ(vxtest::itemsOf(received), before);
}

TEST_F(BagMessageTest, NoMessagePassesTheQueueManagersReasonThrough) {
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_NO_MSG_AVAILABLE);
}

TEST_F(BagMessageTest, AMalformedMessageIsRefusedByTheReader) {
  putBytes(std::vector<char>(20, 'z'), VX_FORMAT_PCF);
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_PCF_FORMAT_ERROR);
  EXPECT_EQ(depth(), 0);
}

TEST_F(BagMessageTest, WithoutMemoryForTheBufferNothingIsGot) {
  put(bagWith(1), md_);
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  svcInjectMemFailure(1);
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(depth(), 1);
}

TEST_F(BagMessageTest, WithoutMemoryForALongerBufferTheMessageStays) {
  put(bagWith(6000), md_);
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  svcInjectMemFailure(2);
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  svcInjectMemFailure(0);
  EXPECT_OUTCOME(cc_, rc_, CC_FAILED, RC_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(depth(), 1);
}

TEST_F(BagMessageTest, AConvertedGetReadsStringsInTheCallersCharacterSet) {
  VXHBAG sent = newBag(0);
  int32_t cc, rc;
  vxSetInteger(sent, SEL_CODED_CHAR_SET_ID, ITEM_INDEX_NONE, 1208, &cc, &rc);
  vxAddString(sent, 5, -1, "caf\xC3\xA9", &cc, &rc);
  md_.codedCharSetId = 1208;
  put(sent, md_);
  VXHBAG received = newBag(0);
  vxMSGDESC md = MD_DEFAULT;
  md.codedCharSetId = 850;
  gmo_.options |= GET_CONVERT;
  vxGetBag(hconn_, hobj_, &md, &gmo_, received, &cc_, &rc_);
  ASSERT_OK(cc_, rc_);
  EXPECT_EQ(md.codedCharSetId, 850);
  char text[8];
  int32_t length = 0, ccsid = 0;
  vxInquireString(received, 5, ITEM_INDEX_NONE, sizeof text, text, &length, &ccsid, &cc, &rc);
  ASSERT_OK(cc, rc);
  EXPECT_EQ(std::string(text, static_cast<size_t>(length)), "caf\x82");
  EXPECT_EQ(ccsid, 850);
}

TEST_F(BagMessageTest, GetTraceRefersToTheQueueCall) {
  VXHBAG received = newBag(0);
  vxtest::TraceCapture trace;
  vxGetBag(hconn_, hobj_, nullptr, &gmo_, received, &cc_, &rc_);
  using vxtest::dataOf;
  EXPECT_EQ(trace.lines(), (Lines{"__________",
                                  "vxGetBag >>",
                                  "Hconn:",
                                  dataOf(hconn_),
                                  "Hobj:",
                                  dataOf(hobj_),
                                  "Msgdesc: NULL",
                                  "Getmsgopts    : Refer to VXGET",
                                  "Bag:",
                                  dataOf(received),
                                  "Compcode      : Output Parm",
                                  "Reason        : Output Parm",
                                  "__________",
                                  "vxGetBag <<",
                                  "Hconn         : Input  Parm",
                                  "Hobj          : Input  Parm",
                                  "Msgdesc       : Refer to VXGET",
                                  "Getmsgopts    : Refer to VXGET",
                                  "Bag           : Input  Parm",
                                  "Compcode:",
                                  dataOf(CC_FAILED),
                                  "Reason:",
                                  dataOf(RC_MSG_DESCRIPTOR_ERROR)}));
}

}  // namespace
