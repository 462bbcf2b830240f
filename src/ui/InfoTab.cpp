#include "InfoTab.h"

#include <QCoreApplication>
#include <QVBoxLayout>

#include "CVConfiguration.h"

InfoTab::InfoTab(QWidget* parent) : QWidget(parent) {
  setObjectName("infoTab");
  versionLabel_.setObjectName("versionLabel");
  versionLabel_.setAccessibleName("Version");
  versionLabel_.setText("Corvalink Sync " + QCoreApplication::applicationVersion());
  versionLabel_.setTextInteractionFlags(Qt::TextSelectableByMouse);
  serverLink_.setObjectName("serverLink");
  serverLink_.setAccessibleName("Open the server in the browser");
  serverLink_.setOpenExternalLinks(true);
  serverLink_.setTextInteractionFlags(Qt::TextBrowserInteraction);
  sendLogsButton_.setObjectName("sendLogsButton");
  sendLogsButton_.setAccessibleName("Export logs");
  sendLogsButton_.setText("Export logs…");
  sendLogsButton_.setEnabled(false);
  sendLogsButton_.setToolTip("This build cannot export the logs yet; they are in the CVLogger folder of the settings.");
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&versionLabel_);
  layout->addWidget(&serverLink_);
  layout->addStretch(1);
  layout->addWidget(&sendLogsButton_, 0, Qt::AlignLeft);
}

void InfoTab::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  std::string url;
  {
    CVConfiguration& config = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    url = config.Corvalink.Url;
  }
  const QString address = QString::fromStdString(url).toHtmlEscaped();
  serverLink_.setText(url.empty() ? QString("No account is signed in.")
                                  : QString("Server: <a href=\"%1\">%1</a>").arg(address));
}
