// The server's policy: the document's sections in any order, what a broken
// document keeps, and what each operation copies into the account.

#include <gtest/gtest.h>

#include "CVConfiguration.h"
#include "CVSelectiveSync.h"
#include "Policy.h"
#include "TempHome.h"

namespace {

const char* kFull =
    "<Root><Settings><Group><Editable>true</Editable><Enabled>true</Enabled><Length>6</Length>"
    "<Value>x</Value></Group><ExternalSharing>false</ExternalSharing><InternalSharing>false</InternalSharing>"
    "<UploadRequests>true</UploadRequests><EmailDocument>true</EmailDocument><iOSOpenIn>true</iOSOpenIn>"
    "<ExpireRequired>true</ExpireRequired><Desktop>7</Desktop><Mobile>9</Mobile><OTPRequired>true</OTPRequired>"
    "<EnableSMS>true</EnableSMS></Settings>"
    "<Corvalink><URL edit=\"false\">https://files.example</URL><Username>u</Username><Password>p</Password></Corvalink>"
    "<Storages><Storage><Type>CIFS</Type><Name>R&amp;D</Name><Path>\\\\nas\\rd</Path>"
    "<RequestForFileUpload><UploadPath>not the account's</UploadPath></RequestForFileUpload></Storage>"
    "<Storage><Type>SP</Type><Name>Été</Name><Path>https://sp/site</Path><AlterAuth>true</AlterAuth>"
    "<Username>own</Username><Password>pw</Password></Storage></Storages>"
    "<RequestForFileUpload><ExpireRequired>true</ExpireRequired><NumberOfUpload>4</NumberOfUpload>"
    "<FileSizeMeasure>MB</FileSizeMeasure><UploadPath>Docs/In</UploadPath><DefaultURDuration>3</DefaultURDuration>"
    "</RequestForFileUpload>"
    "<ExtraSettings><ViewOnlySupported>true</ViewOnlySupported><ViewOnlyTypes>pdf</ViewOnlyTypes>"
    "<DefaultShareDuration>14</DefaultShareDuration><MaxDuration>30</MaxDuration></ExtraSettings></Root>";

TEST(PolicyTest, ReadsEverySectionOfADocument) {
  Policy p = Policy::DoParsing(kFull);
  EXPECT_FALSE(p.parseError);
  EXPECT_TRUE(p.EditableStorages);
  EXPECT_TRUE(p.PasscodeEnabled);
  EXPECT_EQ(p.PasscodeLength, 6);
  EXPECT_FALSE(p.ExternalSharing);
  EXPECT_FALSE(p.InternalSharing);
  EXPECT_TRUE(p.UploadRequests && p.EmailDocument && p.iOSOpenIn && p.ExpireRequired && p.OTPRequired && p.EnableSMS);
  EXPECT_EQ(p.SyncIntervalDesktop, 7);
  EXPECT_EQ(p.SyncIntervalMobile, 9);
  EXPECT_FALSE(p.EditableURL);
  EXPECT_EQ(p.Corvalink.Url, "https://files.example");
  ASSERT_EQ(p.Storages.size(), 2u);
  EXPECT_EQ(p.Storages[0].Name, "R&D");
  EXPECT_EQ(p.Storages[0].Path, "\\\\nas\\rd");
  EXPECT_EQ(p.Storages[1].Name, "Été");  // through UTF-16 and back
  EXPECT_TRUE(p.Storages[1].AlterAuth);
  EXPECT_EQ(p.Storages[1].Username, "own");
  // A storage's own upload request section is not the account's.
  EXPECT_EQ(p.Corvalink.RequestFileUpload.UploadPath, "Docs/In");
  EXPECT_TRUE(p.Corvalink.RequestFileUpload.ExpireRequired);
  EXPECT_EQ(p.Corvalink.RequestFileUpload.NumberOfUpload, 4);
  EXPECT_EQ(p.Corvalink.RequestFileUpload.DefaultURDuration, 3);
  EXPECT_TRUE(p.ViewOnlySupported);
  EXPECT_EQ(p.ViewOnlyTypes, "pdf");
  EXPECT_EQ(p.DefaultShareDuration, 14);
  EXPECT_EQ(p.MaxDuration, 30);
}

TEST(PolicyTest, OrderLayoutDefaultsAndBrokenDocuments) {
  struct Case {
    const char* name;
    const char* text;
    std::function<void(const Policy&)> check;
  };
  const Case cases[] = {
      {"extra settings before the settings", "<P><ExtraSettings><MaxDuration>5</MaxDuration></ExtraSettings>"
                                             "<Settings><Editable>true</Editable></Settings></P>",
       [](const Policy& p) {
         EXPECT_EQ(p.MaxDuration, 5);
         EXPECT_TRUE(p.EditableStorages);
       }},
      {"defaults: sharing on, the rest off", "<P><Settings/></P>",
       [](const Policy& p) {
         EXPECT_TRUE(p.ExternalSharing && p.InternalSharing);
         EXPECT_FALSE(p.EditableStorages || p.EditableURL || p.UploadRequests || p.ExpireRequired);
         EXPECT_TRUE(p.Storages.empty());
       }},
      {"pretty printed", "<P>\n  <Settings>\n    <Editable>true</Editable>\n  </Settings>\n  <Storages>\n"
                         "    <Storage>\n      <Name>Docs</Name>\n    </Storage>\n  </Storages>\n</P>",
       [](const Policy& p) {
         EXPECT_TRUE(p.EditableStorages);
         ASSERT_EQ(p.Storages.size(), 1u);
         EXPECT_EQ(p.Storages[0].Name, "Docs");
       }},
      {"Storages inside Settings stay settings",
       "<P><Settings><Storages><Editable>true</Editable></Storages><UploadRequests>true</UploadRequests></Settings></P>",
       [](const Policy& p) {
         EXPECT_TRUE(p.EditableStorages);
         EXPECT_TRUE(p.UploadRequests);
       }},
      {"a break keeps what came before",
       "<P><Settings><Editable>true</Editable></Settings><Storages><Storage><Name>A</Name></Storage>"
       "<Storage><Name>B</Na",
       [](const Policy& p) {
         EXPECT_TRUE(p.parseError);
         EXPECT_TRUE(p.EditableStorages);
         ASSERT_GE(p.Storages.size(), 1u);
         EXPECT_EQ(p.Storages[0].Name, "A");
       }},
      {"not XML at all", "-1;", [](const Policy& p) { EXPECT_TRUE(p.parseError); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.check(Policy::DoParsing(c.text));
  }
  EXPECT_TRUE(Policy::IsNoPolicy(""));
  EXPECT_TRUE(Policy::IsNoPolicy("-1;Invalid token"));
  EXPECT_FALSE(Policy::IsNoPolicy("<P/>"));
}

TEST(PolicyTest, EachOperationCopiesItsOwnFields) {
  TempHome home;
  const std::string doc =
      "<P><Settings><Editable>true</Editable><InternalSharing>false</InternalSharing>"
      "<ExternalSharing>false</ExternalSharing></Settings><Corvalink><URL edit=\"false\"/></Corvalink>"
      "<Storages><Storage><Type>CIFS</Type><Name>Docs</Name><Path>\\\\srv\\Docs</Path></Storage>"
      "<Storage><Type>S3</Type><Name>Bucket</Name><Path>//bucket/x</Path></Storage>"
      "<Storage><Type>SP</Type><Name>Shared In</Name><Path>https://sp/x</Path></Storage></Storages></P>";
  CVConfiguration& config = CVConfiguration::Instance();

  Policy::ParseCorvalinkConfigNewBase(doc);
  EXPECT_FALSE(config.Corvalink.EditableWS);
  EXPECT_FALSE(config.Corvalink.InternalSharing);
  EXPECT_TRUE(config.fSpSites.empty());

  config.Corvalink.EditableWS = true;
  config.Corvalink.InternalSharing = true;
  auto retrieved = Policy::ParseCorvalinkConfigNewForRetrieveStoragesWithXML(doc);
  EXPECT_TRUE(config.Corvalink.EditableWS);  // the retrieval leaves the URL's lock alone
  EXPECT_FALSE(config.Corvalink.InternalSharing);
  ASSERT_TRUE(retrieved);
  EXPECT_EQ(retrieved->size(), 3u);
  EXPECT_TRUE(config.fSpSites.empty());

  config.Corvalink.InternalSharing = true;
  Policy::ParseCorvalinkConfigNew(doc);
  Policy::ParseCorvalinkConfigNew(doc);  // a second application adds no twin
  EXPECT_FALSE(config.Corvalink.EditableWS);
  EXPECT_TRUE(config.Corvalink.InternalSharing);  // not copied by this one
  ASSERT_EQ(config.fSpSites.size(), 2u);          // "Shared In" is the client's own folder
  EXPECT_EQ(config.fSpSites[0]->Url, "\\\\srv\\Docs\\");
  EXPECT_EQ(config.fSpSites[1]->Url, "S3://bucket/x/");
  EXPECT_FALSE(config.fSpSites[0]->isManually);
  EXPECT_TRUE(CVSelectiveSync::Instance().GetSiteRulesByName("Docs"));
  EXPECT_FALSE(Policy::ParseCorvalinkConfigNewForRetrieveStoragesWithXML("<P><Settings/></P>"));
}

}  // namespace
