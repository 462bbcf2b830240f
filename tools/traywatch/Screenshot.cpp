#include "Screenshot.h"

#include <QGuiApplication>
#include <QImage>
#include <QPixmap>
#include <QScreen>

#include "TrayBus.h"

bool SaveScreenshot(const std::string& file) {
  PumpUntil([] { return false; }, 500);  // let the windows draw
  const QImage screen = QGuiApplication::primaryScreen()->grabWindow(0).toImage();
  QRect shown;
  for (int y = 0; y < screen.height(); ++y) {
    for (int x = 0; x < screen.width(); ++x) {
      if ((screen.pixel(x, y) & 0xffffff) != 0) shown |= QRect(x, y, 1, 1);
    }
  }
  return (shown.isEmpty() ? screen : screen.copy(shown)).save(QString::fromStdString(file), "PNG");
}
