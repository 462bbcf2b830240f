#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "CVErrorHandler.h"
#include "CVTextEscaping.h"
#include "MyParser.h"
#include "TempHome.h"
#include "WSCommonMethods.h"

TEST(WSCommonMethods, EnvelopeIsByteExactWithEmptyValuesAsEmptyElements) {
  std::string envelope = WSCommonMethods::BuildEnvelope(
      "GetFiles", {{"Token", "abc"}, {"Path", ""}, {"IsRecursive", "true"}});
  EXPECT_EQ(envelope,
            "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body>"
            "<GetFiles xmlns=\"http://tempuri.org/\" xmlns:i=\"http://www.w3.org/2001/XMLSchema-instance\">"
            "<Token>abc</Token><Path/><IsRecursive>true</IsRecursive></GetFiles></s:Body></s:Envelope>");
}

TEST(WSCommonMethods, ValuesEscapedOnceByTheCallerMakeAWellFormedEnvelope) {
  std::string name = "a&b <c> \"d\" 'e'";
  std::string envelope = WSCommonMethods::BuildEnvelope(
      "MoveFile", {{"NewFileName", CVTextEscaping::AddSpecialSymbols(name)},
                   {"Options", "<DeviceID>X</DeviceID>"}});  // fragments go in raw
  xmlDocPtr doc = xmlReadMemory(envelope.data(), static_cast<int>(envelope.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  ASSERT_NE(doc, nullptr) << envelope;
  xmlFreeDoc(doc);
  EXPECT_EQ(MyParser::GetParsedStringForNode("NewFileName", envelope), name);
  EXPECT_EQ(MyParser::GetParsedStringForNode("DeviceID", envelope), "X");
}

TEST(WSCommonMethods, DataCallsWaitLongerForListingsAndHashes) {
  EXPECT_EQ(WSCommonMethods::DataCallTimeOut("GetFiles"), 600.0);
  EXPECT_EQ(WSCommonMethods::DataCallTimeOut("GetFiles2"), 600.0);
  EXPECT_EQ(WSCommonMethods::DataCallTimeOut("GetFiles3"), 600.0);
  EXPECT_EQ(WSCommonMethods::DataCallTimeOut("GetHashes"), 600.0);
  EXPECT_EQ(WSCommonMethods::DataCallTimeOut("GetVersion"), 120.0);
  EXPECT_EQ(WSCommonMethods::DataCallTimeOut("getfiles"), 120.0);
}

TEST(MyParser, FindsTheLastElementUnescapedAndCopesWithBrokenReplies) {
  TempHome home;
  std::string reply =
      "<s:Envelope xmlns:s=\"x\"><s:Body><LoginResponse xmlns=\"http://tempuri.org/\">"
      "<LoginResult>first</LoginResult>\n  <LoginResult>0;a&amp;b&lt;c&gt;</LoginResult>"
      "<Empty></Empty></LoginResponse></s:Body></s:Envelope>";
  EXPECT_EQ(MyParser::GetParsedStringForNode("LoginResult", reply), "0;a&b<c>");
  EXPECT_EQ(MyParser::GetParsedStringForNode("Empty", reply), "");
  EXPECT_EQ(MyParser::GetParsedStringForNode("Missing", reply), "");
  EXPECT_EQ(MyParser::GetParsedStringForNode("LoginResult", ""), "");
  // The text found before an error stands, and the error is logged.
  std::string broken = "<a><GetVersionResult>6.1.0.0</GetVersionResult><b></a>";
  EXPECT_EQ(MyParser::GetParsedStringForNode("GetVersionResult", broken), "6.1.0.0");
  EXPECT_NE(home.ReadLog("CVMainLogs").find("(MyParser XML parser [GetVersionResult]) Error"),
            std::string::npos);
  EXPECT_EQ(MyParser::GetParsedStringForNode("x", "not xml at all"), "");
}

TEST(CVErrorHandler, OnlyTheExactTextIsNotFound) {
  EXPECT_TRUE(CVErrorHandler::FileNotFound("-6;File/Folder not found;"));
  EXPECT_FALSE(CVErrorHandler::FileNotFound("-6;File/Folder not found"));
  EXPECT_FALSE(CVErrorHandler::FileNotFound("-6;Error Code - 183 Cannot create a file when that file already exists;"));
}
