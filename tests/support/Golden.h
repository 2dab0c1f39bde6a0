// Golden-request rows: a call through ServerApi and the whole request the test server
// must receive (request line with its encoded query, every header in order, body),
// run once for each deployment type the row names. One row proves the wire, the
// facade's forward and the variant's inheritance at once.
//
//     golden("lockFile", [](GoldenContext& c) {
//         NBServerApiLockFileModel m;
//         m.path = "/a b";
//         return ServerApi::LockFile(m, c.calls.completion());
//     }).sends(AllDeployments, "GET /v2/lock/databox/a%20b?path=%2Fa%20b&path_type=\n{get}\n")
//
// Placeholders in the expected text, each standing for literal lines:
//   {host}    the test server's host and port
//   {ua}      "User-Agent: NBTest/1.0"        {cookie}  the default "Cookie" line
//   {form}    the fixed form "Content-Type"
//   {qt}      the three headers the network layer adds to every request
//   {get}     Host, {ua}, "Accept: */*", {cookie}, {qt}: a GET with the default headers
//   {post}    Host, {ua}, {form}, {cookie}, Content-Length, {qt}: a POST with them
//   {upload}  Host, {ua}, {rawcookie}, {form}, Content-Length, {qt}: an upload, whose
//             cookie is not merged: {rawcookie} is the "Cookie" line as the endpoint writes it
//             (all three end with the network layer's "User-Agent: Mozilla/5.0" when the
//             settings have no user agent)
//   {length}  the length of the expected body (what follows the blank line)
//   {digits}  any run of decimal digits (a time stamp), {hex} of lower-case hexadecimal ones
// The default settings of every run: user agent "NBTest/1.0", language "zh", session
// "sess-1", no verification code; {cookie} follows the row's settings.
#pragma once

#include "Calls.h"
#include "INBSeverApi.h"
#include "TestServer.h"

#include <QMetaType>
#include <QTemporaryDir>

enum Deployment : int {
    Pri = 1 << ServerApi::Private,
    Pub = 1 << ServerApi::PublicCloud,
    PriSix = 1 << ServerApi::PrivateSix,
    AllDeployments = Pri | Pub | PriSix,
};

struct GoldenSettings
{
    QString userAgent = QStringLiteral("NBTest/1.0");
    QString language = QStringLiteral("zh");
    QString session = QStringLiteral("sess-1");
    QString verifyCode;
};

// What a row's call works with.
struct GoldenContext
{
    Calls calls;
    // The test server's address with a path, e.g. url("/files").
    QString url(const QString& path = QString()) const { return server + path; }
    QString server; // "http://127.0.0.1:<port>"
    QString dir; // a temporary folder of the run
};

using GoldenCall = std::function<long long(GoldenContext&)>;

struct GoldenRow
{
    QString name;
    GoldenCall call;
    QList<QPair<int, QByteArray>> wires;
    QList<QPair<int, long long>> unservedResults;
    GoldenSettings settings;
    // The call hands no completion to the caller (the record is not checked).
    bool completes = true;
    // The call goes through ServerApi, so it also runs once before any init.
    bool facade = true;

    // The request each of these deployments sends.
    GoldenRow& sends(int deployments, const QByteArray& wire);
    // These deployments send nothing, never call back and return `result`.
    GoldenRow& unserved(int deployments, long long result);
    GoldenRow& verifyCode(const QString& code);
    GoldenRow& withSettings(const GoldenSettings& settings);
    GoldenRow& noCompletion();
    // The call reaches an endpoint's own function, which needs an endpoint.
    GoldenRow& throughTheEndpoint();
};
Q_DECLARE_METATYPE(GoldenRow)

GoldenRow golden(const QString& name, GoldenCall call);

namespace Golden {
// In a test's _data function: one QTest row per row and deployment it names.
void addRows(const QList<GoldenRow>& rows);
// In the test function: runs the current row.
void run();
// The expected text with its placeholders replaced.
QByteArray expand(QByteArray wire, const QByteArray& host, const GoldenSettings& settings);
// Whether the received text is the expanded expected one, wildcards matching.
bool matches(const QByteArray& expected, const QByteArray& received);
// A line-by-line diff, "  " same, "- " expected only, "+ " received only.
QString lineDiff(const QByteArray& expected, const QByteArray& received);
} // namespace Golden
