// A QtTest main that runs every test in a fresh, private home: HOME and the XDG
// folders point into a temporary folder, the locale is fixed and no proxy variable
// leaks in.
#pragma once

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

class TestEnvironment
{
public:
    TestEnvironment();
    QString home() const { return m_home.path(); }

private:
    QTemporaryDir m_home;
};

#define NB_TEST_MAIN(TestObject)                                                                             \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        TestEnvironment environment;                                                                         \
        QCoreApplication app(argc, argv);                                                                    \
        TestObject test;                                                                                     \
        return QTest::qExec(&test, argc, argv);                                                              \
    }
