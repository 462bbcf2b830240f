#include "WidgetHelpers.h"

#include <QPainter>
#include <QPixmap>

namespace widgets {

void Name(QWidget& widget, const char* objectName, const QString& accessible) {
  widget.setObjectName(objectName);
  widget.setAccessibleName(accessible);
}

QIcon StorageStateIcon(const std::string& iconStorage) {
  const QColor colour = iconStorage == "storage_sync_green"    ? QColor(0x2e, 0xa0, 0x43)
                        : iconStorage == "storage_sync_yellow" ? QColor(0xd9, 0xa4, 0x06)
                                                               : QColor(0x8a, 0x8a, 0x8a);
  QPixmap dot(16, 16);
  dot.fill(Qt::transparent);
  QPainter painter(&dot);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(colour);
  painter.drawEllipse(2, 2, 12, 12);
  return QIcon(dot);
}

}  // namespace widgets
