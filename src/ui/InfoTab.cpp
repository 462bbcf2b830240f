#include "InfoTab.h"

#include <QCoreApplication>
#include <QFileDialog>
#include <QMessageBox>
#include <QPointer>
#include <QVBoxLayout>
#include <filesystem>

#include "CVConfiguration.h"
#include "LogExport.h"
#include "WidgetHelpers.h"
#include "XdgDesktop.h"

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
  connect(&sendLogsButton_, &QPushButton::clicked, this, &InfoTab::sendLogs);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&versionLabel_);
  layout->addWidget(&serverLink_);
  layout->addStretch(1);
  layout->addWidget(&sendLogsButton_, 0, Qt::AlignLeft);
}

InfoTab::~InfoTab() { workers_.JoinAll(); }

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

// The save panel is not modal: the main loop goes on while the user chooses.
void InfoTab::sendLogs() {
  const std::string folder = XdgDesktop::DownloadFolder();
  std::error_code ignored;  // a panel on a missing folder would open elsewhere
  std::filesystem::create_directories(folder, ignored);
  auto* panel = new QFileDialog(this, "Export logs", QString::fromStdString(folder + "/" + LogExport::ArchiveName()),
                                "Zip archives (*.zip)");
  widgets::Name(*panel, "exportLogsPanel", "Export logs");
  panel->setAcceptMode(QFileDialog::AcceptSave);
  panel->setOption(QFileDialog::DontUseNativeDialog);
  panel->setAttribute(Qt::WA_DeleteOnClose);
  connect(panel, &QFileDialog::fileSelected, this, &InfoTab::ExportLogsTo);
  panel->open();
}

void InfoTab::ExportLogsTo(const QString& target) {
  sendLogsButton_.setEnabled(false);
  QPointer<InfoTab> self(this);
  workers_.Start([self, target = target.toStdString()] {
    const auto result = LogExport::sendLogs(target);
    QMetaObject::invokeMethod(
        qApp,
        [self, result] {
          if (!self) return;
          self->sendLogsButton_.setEnabled(true);
          const auto text = result.saved ? LogExport::SavedText(result)
                                         : "The logs could not be saved to " + result.path + ": " + result.problem;
          const auto newline = text.find('\n');
          auto* box = new QMessageBox(result.saved ? QMessageBox::Information : QMessageBox::Warning, "Export logs",
                                      QString::fromStdString(text.substr(0, newline)), QMessageBox::NoButton, self);
          widgets::Name(*box, "exportLogsMessage", "Export logs");
          if (newline != std::string::npos) box->setInformativeText(QString::fromStdString(text.substr(newline + 1)));
          box->addButton(LogExport::kButton, QMessageBox::AcceptRole);
          box->setAttribute(Qt::WA_DeleteOnClose);
          box->open();
        },
        Qt::QueuedConnection);
  });
}
