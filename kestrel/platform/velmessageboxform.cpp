#include "velmessageboxform.h"

#include <QDebug>

namespace {
velMessageBoxForm::Handler& handler()
{
    static velMessageBoxForm::Handler h;
    return h;
}
} // namespace

int velMessageBoxForm::critical(QWidget* parent, QString title, QString text, int buttons, int defaultButton)
{
    if (handler())
        return handler()(parent, title, text, buttons, defaultButton);
    qCritical().noquote() << title + ": " + text;
    return defaultButton;
}

void velMessageBoxForm::setHandler(Handler h)
{
    handler() = std::move(h);
}
