# SPDX-License-Identifier: MIT
"""
What compiles on Qt 5 and 6 and fails on Qt 4.8, or is silently skipped by its moc.

Qt 4.8 is too old to be had on the systems that run these tests, so its limits are kept by looking for
what is known to break them.
"""

import re
from typing import NamedTuple

from sources import (arguments_of_calls, line_of, without_comments, without_comments_and_literals,
                     without_includes)

# Has a version condition around each of them.
COMPAT_HEADER = "src/support/QtCompat.h"
# Asks whether bytes are UTF-8, which they have to be with every Qt.
UTF8_CHECK = "src/avahi/AvahiText.h"

# Headers that Qt 4.8 has. Look there before adding one.
QT_48_HEADERS = {
    "QtCore": set("""
        QAbstractEventDispatcher QAtomicInt QBasicTimer QByteArray QChar QCoreApplication QDateTime QDebug
        QElapsedTimer QEvent QEventLoop QFile QFileSystemWatcher QHash QIODevice QLatin1Char QLatin1String QList
        QMap QMetaObject QMetaType QMultiMap QMutex QMutexLocker QObject QPair QPointer QProcess QScopedPointer QSet
        QSharedPointer QSocketNotifier QString QStringList QTextStream QThread QTime QTimer QTimerEvent
        QVariant QVector QWaitCondition QtAlgorithms QtGlobal
        """.split()),
    "QtNetwork": set("QHostAddress QHostInfo QNetworkInterface".split()),
    # Not a part of Qt, and used only by those who have it.
    "QtService": {"qtservice"},
}


class Finding(NamedTuple):
    line: int
    rule: str


class Pattern(NamedTuple):
    rule: str
    expression: str
    allowed_in: tuple = ()


def _names(*names):
    return r"\b(?:" + "|".join(names) + r")\b"


PATTERNS = [
    Pattern("Qt 5 macro", _names(
        "QStringLiteral", "QByteArrayLiteral", "Q_DECL_OVERRIDE", "Q_DECL_FINAL", "Q_DECL_NOEXCEPT", "Q_NULLPTR",
        "Q_ENUM", "Q_ENUM_NS", "Q_FLAG", "Q_NAMESPACE", "Q_DISABLE_MOVE", "Q_DISABLE_COPY_MOVE", "Q_FALLTHROUGH",
        "Q_STATIC_ASSERT", "Q_STATIC_ASSERT_X", "Q_UNREACHABLE", "Q_ASSUME", "Q_MOC_INCLUDE",
        "Q_LOGGING_CATEGORY", "Q_DECLARE_LOGGING_CATEGORY")),
    Pattern("Qt 5 function", _names(
        "qInstallMessageHandler", "qOverload", "qConstOverload", "qNonConstOverload", "QOverload", "qAsConst",
        "qExchange", "qInfo", "qCDebug", "qCInfo", "qCWarning", "qCCritical", "qUtf8Printable", "qUtf16Printable",
        "qEnvironmentVariable", "qEnvironmentVariableIntValue", "qEnvironmentVariableIsSet",
        "QMetaMethod\\s*::\\s*fromSignal")),
    Pattern("Qt 5 class", _names(
        "QRegularExpression\\w*", "QJson\\w+", "QCommandLine\\w+", "QStandardPaths", "QTimeZone", "QSignalBlocker",
        "QRandomGenerator\\w*", "QLoggingCategory", "QMessageLogContext", "QMessageLogger", "QDeadlineTimer",
        "QVersionNumber", "QCollator\\w*", "QOperatingSystemVersion", "QAtomicInteger", "QMultiHashIterator")),
    Pattern("Qt 5 or 6 type", _names(
        "QStringView", "QByteArrayView", "QAnyStringView", "QUtf8StringView", "QLatin1StringView", "qsizetype"),
        allowed_in=(COMPAT_HEADER,)),
    Pattern("Qt 5 container function", r"[.>](?:cbegin|cend|constFirst|constLast|chopped)\s*\("),
    Pattern("name of the namespace Qt that 4.8 has elsewhere", _names(
        "Qt\\s*::\\s*(?:endl|flush|hex|dec|oct|bin|left|right|center|forcesign|showbase|ws"
        "|SkipEmptyParts|KeepEmptyParts|SplitBehavior)"), allowed_in=(COMPAT_HEADER,)),
    Pattern("Qt 5 timer type", _names("Qt\\s*::\\s*(?:PreciseTimer|CoarseTimer|VeryCoarseTimer|TimerType)"),
            allowed_in=(COMPAT_HEADER,)),
    Pattern("QMutexLocker as a template", r"\bQMutexLocker\s*<"),
    Pattern("conversion between bytes and text", _names("fromAscii", "toAscii", "fromUtf8", "toUtf8"),
            allowed_in=(COMPAT_HEADER, UTF8_CHECK)),
    Pattern("final", r"\bfinal\b"),
    Pattern("nested namespace", r"(?<!using )\bnamespace\s+\w+\s*::"),
    Pattern("digit separator", r"\b\d[0-9A-Fa-fxX]*'[0-9A-Fa-f]"),
    Pattern("attribute on a class", r"\b(?:class|struct|enum)\s*\[\["),
    Pattern("foreach", _names("foreach", "Q_FOREACH", "forever")),
    Pattern("keyword of moc's", _names("signals", "slots", "emit")),
    Pattern("__has_include", r"\b__has_include\b"),
]


def _findings_of_patterns(code, name):
    for pattern in PATTERNS:
        if name not in pattern.allowed_in:
            for match in re.finditer(pattern.expression, code):
                yield match.start(), pattern.rule


def _findings_of_calls(code):
    for offset, arguments in arguments_of_calls(code, "connect"):
        if "SIGNAL(" not in arguments:
            yield offset, "connect without SIGNAL()"
    for offset, arguments in arguments_of_calls(code, "disconnect"):
        if re.search(r"&\s*\w+::", arguments):
            yield offset, "disconnect by a pointer"
    for offset, arguments in arguments_of_calls(code, "singleShot"):
        if "SLOT(" not in arguments and "SIGNAL(" not in arguments:
            yield offset, "singleShot without SLOT()"
    for offset, arguments in arguments_of_calls(code, "invokeMethod"):
        if '"' not in arguments:
            yield offset, "invokeMethod without a name"


def _findings_of_includes(code):
    for match in re.finditer(r"#\s*include\s*<(Q\w*)(?:/(\w+))?", code):
        module, header = match[1], match[2]
        if header is None:
            yield match.start(), "Qt header without its module"
        elif header not in QT_48_HEADERS.get(module, ()):
            yield match.start(), "header not known to be in Qt 4.8"


def _findings_of_signatures(code):
    unqualified = r"(?<!::)\bS(?:Service|Reconfig|Resolver)Info\b"
    for section in re.finditer(r"\bQ_(?:SIGNALS|SLOTS)\s*:(.*?)(?=\b(?:public|protected|private)\b|\};)", code,
                               re.DOTALL):
        for match in re.finditer(unqualified, section[1]):
            yield section.start(1) + match.start(), "record without its namespace in a signature"
    for offset, arguments in arguments_of_calls(code, "SIGNAL|SLOT"):
        if re.search(unqualified, arguments):
            yield offset, "record without its namespace in a signature"


def findings(text, name="src/any.cpp"):
    """What Qt 4.8 or its moc would not take in a source of this name."""
    code = without_includes(without_comments_and_literals(text))
    found = [
        *_findings_of_patterns(code, name),
        *_findings_of_calls(code),
        *_findings_of_includes(without_comments(text)),
        *_findings_of_signatures(code),
    ]
    return sorted(Finding(line_of(text, offset), rule) for offset, rule in found)
