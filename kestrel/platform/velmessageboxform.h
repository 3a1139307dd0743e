#pragma once

#include "kestrel_global.h"

#include <QString>

#include <functional>

class QWidget;

// The application's modal error box. The library runs headless as well, so by default the box is
// a critical diagnostic (title and text); a GUI host installs its own dialog with setHandler().
class KESTREL_EXPORT velMessageBoxForm
{
public:
    using Handler = std::function<int(QWidget* parent, const QString& title, const QString& text, int, int)>;

    static int critical(QWidget* parent, QString title, QString text, int buttons, int defaultButton);

    // Replaces the box shown by critical(); an empty handler restores the diagnostic.
    static void setHandler(Handler handler);
};
