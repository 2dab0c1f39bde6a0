// The system proxy on Linux: the proxy environment variables, no_proxy included.
#include "TestMain.h"

#include <NBUtil.h>

class TestNBUtil : public QObject
{
    Q_OBJECT
private slots:
    void cleanup()
    {
        for (const char* name : { "http_proxy", "https_proxy", "no_proxy" })
            qunsetenv(name);
    }

    void noVariableMeansNoProxy()
    {
        QCOMPARE(NBUtil::getSystemProxy("http://example.test/x").type(), QNetworkProxy::NoProxy);
    }

    void httpProxyVariableApplies()
    {
        qputenv("http_proxy", "http://user:pw@proxy.test:3128");
        const QNetworkProxy p = NBUtil::getSystemProxy("http://example.test/x");
        QCOMPARE(p.type(), QNetworkProxy::HttpProxy);
        QCOMPARE(p.hostName(), QString("proxy.test"));
        QCOMPARE(p.port(), quint16(3128));
        QCOMPARE(p.user(), QString("user"));
        QCOMPARE(p.password(), QString("pw"));
    }

    void httpsAddressesUseTheHttpsVariable()
    {
        qputenv("http_proxy", "http://plain.test:1");
        qputenv("https_proxy", "http://secure.test:2");
        QCOMPARE(NBUtil::getSystemProxy("https://example.test/").hostName(), QString("secure.test"));
        QCOMPARE(NBUtil::getSystemProxy("http://example.test/").hostName(), QString("plain.test"));
    }

    void noProxyListIsHonoured()
    {
        qputenv("http_proxy", "http://proxy.test:3128");
        qputenv("no_proxy", "localhost,.internal.test,10.0.0.1");
        QCOMPARE(NBUtil::getSystemProxy("http://localhost:8080/").type(), QNetworkProxy::NoProxy);
        QCOMPARE(NBUtil::getSystemProxy("http://a.internal.test/").type(), QNetworkProxy::NoProxy);
        QCOMPARE(NBUtil::getSystemProxy("http://10.0.0.1/").type(), QNetworkProxy::NoProxy);
        QCOMPARE(NBUtil::getSystemProxy("http://outside.test/").type(), QNetworkProxy::HttpProxy);
    }
};

NB_TEST_MAIN(TestNBUtil)
#include "tst_nbutil.moc"
