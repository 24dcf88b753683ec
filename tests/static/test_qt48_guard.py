# SPDX-License-Identifier: MIT
"""The library stays within what Qt 4.8 and its moc accept."""

import pytest

import qt48
from qt48 import Finding
from sources import library_files, name_of

REJECTED = [
    ("QObject::connect(a, &A::done, b, &B::go);", "connect without SIGNAL()"),
    ("connect(a, &A::done,\n        [this]() { go(); });", "connect without SIGNAL()"),
    ("disconnect(a, &A::done, b, nullptr);", "disconnect by a pointer"),
    ("QTimer::singleShot(0, this, [this] { go(); });", "singleShot without SLOT()"),
    ("QTimer::singleShot(0, this, &A::go);", "singleShot without SLOT()"),
    ("QMetaObject::invokeMethod(this, [this] { go(); });", "invokeMethod without a name"),
    ('const QString s = QStringLiteral("x");', "Qt 5 macro"),
    ('const QByteArray s = QByteArrayLiteral("x");', "Qt 5 macro"),
    ("void go() Q_DECL_OVERRIDE;", "Qt 5 macro"),
    ("void go() Q_DECL_NOEXCEPT;", "Qt 5 macro"),
    ("A* a = Q_NULLPTR;", "Qt 5 macro"),
    ("Q_ENUM(Kind)", "Qt 5 macro"),
    ("Q_NAMESPACE", "Qt 5 macro"),
    ("Q_DISABLE_COPY_MOVE(A)", "Qt 5 macro"),
    ("Q_STATIC_ASSERT(true);", "Qt 5 macro"),
    ('Q_MOC_INCLUDE("a.h")', "Qt 5 macro"),
    ("qInstallMessageHandler(handler);", "Qt 5 function"),
    ("auto signal = qOverload<int>(&A::done);", "Qt 5 function"),
    ("auto signal = QOverload<int>::of(&A::done);", "Qt 5 function"),
    ("for (int i : qAsConst(list)) use(i);", "Qt 5 function"),
    ('qInfo("x");', "Qt 5 function"),
    ("const QMetaMethod m = QMetaMethod::fromSignal(&A::done);", "Qt 5 function"),
    ("QRegularExpression expression;", "Qt 5 class"),
    ("QRegularExpressionMatch match;", "Qt 5 class"),
    ("QJsonObject object;", "Qt 5 class"),
    ("QSignalBlocker blocker(this);", "Qt 5 class"),
    ("QDeadlineTimer deadline;", "Qt 5 class"),
    ("void take(QStringView text);", "Qt 5 or 6 type"),
    ("void take(QByteArrayView bytes);", "Qt 5 or 6 type"),
    ("qsizetype size = 0;", "Qt 5 or 6 type"),
    ("for (auto i = map.cbegin(); i != last; ++i) use(*i);", "Qt 5 container function"),
    ("use(list->constFirst());", "Qt 5 container function"),
    ("out << Qt::endl;", "name of the namespace Qt that 4.8 has elsewhere"),
    ("out << Qt::hex << 1;", "name of the namespace Qt that 4.8 has elsewhere"),
    ("text.split(comma, Qt::SkipEmptyParts);", "name of the namespace Qt that 4.8 has elsewhere"),
    ("timer.start(5, Qt::PreciseTimer, this);", "Qt 5 timer type"),
    ("QMutexLocker<QMutex> locker(&mutex);", "QMutexLocker as a template"),
    ("QString::fromAscii(bytes);", "conversion between bytes and text"),
    ("text.toAscii();", "conversion between bytes and text"),
    ("QString::fromUtf8(bytes);", "conversion between bytes and text"),
    ("text.toUtf8();", "conversion between bytes and text"),
    ("class A final : public B {};", "final"),
    ("class Q_DECL_EXPORT A final {};", "final"),
    ("namespace a::b {}", "nested namespace"),
    ("const int MANY = 1'000'000;", "digit separator"),
    ("const int MASK = 0xFF'FF;", "digit separator"),
    ("class [[nodiscard]] A {};", "attribute on a class"),
    ("struct[[deprecated]] A {};", "attribute on a class"),
    ("foreach (int i, list) use(i);", "foreach"),
    ("Q_FOREACH (int i, list) use(i);", "foreach"),
    ("signals:", "keyword of moc's"),
    ("public slots:", "keyword of moc's"),
    ("emit done();", "keyword of moc's"),
    ("#if __has_include(<optional>)", "__has_include"),
    ("#include <QString>", "Qt header without its module"),
    ("#include <QtCore/QStringView>", "header not known to be in Qt 4.8"),
    ("#include <QtCore/QRegularExpression>", "header not known to be in Qt 4.8"),
    ("#include <QtCore/QLoggingCategory>", "header not known to be in Qt 4.8"),
    ("#include <QtNetwork/QNetworkDatagram>", "header not known to be in Qt 4.8"),
    ("#include <QtConcurrent/QtConcurrentRun>", "header not known to be in Qt 4.8"),
    ("class A {\nQ_SIGNALS:\n    void found(SServiceInfo info);\n};",
     "record without its namespace in a signature"),
    ("private Q_SLOTS:\n    void take(const SReconfigInfo& info);\n\nprotected:\n",
     "record without its namespace in a signature"),
    ("connect(a, SIGNAL(found(SServiceInfo)), b, SLOT(go()));", "record without its namespace in a signature"),
]

ACCEPTED = [
    "connect(&timer, SIGNAL(timeout()), this, SLOT(go()));",
    "connect(a, SIGNAL(found(vd::SServiceInfo)), b, SLOT(take(vd::SServiceInfo)));",
    "disconnect(a, 0, this, 0);",
    "QTimer::singleShot(0, this, SLOT(go()));",
    'QMetaObject::invokeMethod(this, "go", Qt::QueuedConnection);',
    "class A : public B { void go() override; };",
    "namespace vd { namespace { int i; } }",
    "namespace short_name = a::b;",
    "using namespace a::b;",
    "Q_SIGNALS:\n    void found(vd::SServiceInfo info);\n\nprivate:\n    void take(SServiceInfo info);\n};",
    "Q_EMIT done();",
    "// foreach, emit and QStringLiteral, as in 1'000\n",
    "/* class A final\n   signals: */",
    'const char* text = "emit slots foreach Qt::endl";',
    'const char* quotes = "\\"emit";',
    "const char quote = '\"'; const char next = 'a'; const char* text = \"emit\";",
    "bool finalResult; bool emitted; int slotsFree;",
    "#include <QtCore/QString>\n#include <QtNetwork/QHostAddress>\n#include <atomic>\n#include \"support/QtCompat.h\"",
]


@pytest.mark.parametrize("path", library_files(), ids=name_of)
def test_the_librarys_source_is_within_qt_4_8(path):
    assert qt48.findings(path.read_text(), name_of(path)) == []


@pytest.mark.parametrize("snippet, rule", REJECTED, ids=[snippet for snippet, rule in REJECTED])
def test_the_scan_flags(snippet, rule):
    assert {finding.rule for finding in qt48.findings(snippet)} == {rule}


@pytest.mark.parametrize("snippet", ACCEPTED)
def test_the_scan_lets_pass(snippet):
    assert qt48.findings(snippet) == []


def test_each_rule_of_the_scan_is_tried_out():
    rules = {pattern.rule for pattern in qt48.PATTERNS}

    assert rules - {rule for snippet, rule in REJECTED} == set()


def test_a_finding_is_told_with_its_line():
    assert qt48.findings("/* two\n   lines */\nint i; // emit\nemit done();\n") == [Finding(4, "keyword of moc's")]


def test_the_compatibility_header_may_use_what_it_makes_compatible():
    assert qt48.findings("out << Qt::endl << QString::fromAscii(bytes);", qt48.COMPAT_HEADER) == []


def test_the_check_of_utf_8_may_decode_it_and_nothing_more():
    assert qt48.findings("QString::fromUtf8(bytes) << Qt::endl;", qt48.UTF8_CHECK) == [
        Finding(1, "name of the namespace Qt that 4.8 has elsewhere")]


def test_the_compatibility_header_is_not_let_off_the_rest():
    assert qt48.findings("emit done();", qt48.COMPAT_HEADER) == [Finding(1, "keyword of moc's")]
