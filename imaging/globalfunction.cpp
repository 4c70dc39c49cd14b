#include "imaging/globalfunction.h"

GlobalFunction::GlobalFunction()
{
}

GlobalFunction::~GlobalFunction()
{
}

// Both tags are searched from the start of the text: a close tag standing before
// the first open tag means "no element", not "look further".
QString GlobalFunction::getBody(QString text, QString openTag, QString closeTag)
{
    const int nOpen = text.indexOf(openTag, 0, Qt::CaseInsensitive);
    const int nClose = text.indexOf(closeTag, 0, Qt::CaseInsensitive);
    if (nOpen < 0 || nOpen >= nClose || nClose >= text.length())
        return QString("");
    const int nStart = nOpen + openTag.length();
    // An open tag overlapping the close tag ("<a" / "a>" in "<a>") has no body.
    if (nStart > nClose)
        return QString("");
    return text.mid(nStart, nClose - nStart);
}

QString GlobalFunction::getAndRemoveBody(QString& text, QString openTag, QString closeTag)
{
    const int nOpen = text.indexOf(openTag, 0, Qt::CaseInsensitive);
    const int nClose = text.indexOf(closeTag, 0, Qt::CaseInsensitive);
    if (nOpen < 0 || nOpen >= nClose || nClose >= text.length())
        return QString("");
    const int nStart = nOpen + openTag.length();
    if (nStart > nClose)
        return QString("");
    QString strBody = text.mid(nStart, nClose - nStart);
    text.remove(nOpen, nClose - nOpen + closeTag.length());
    return strBody;
}
