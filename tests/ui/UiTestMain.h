#pragma once
// The main of every screen test: a QApplication on the offscreen platform, the
// cheap derivation parameters of the tests, the layers joined as the
// application joins them, and a home of its own so no test sees the user's data.
#include <QApplication>
#include <QTemporaryDir>
#include <QtTest>

#include "app/LayerWiring.h"
#include "vault/QVCryptoTesting.h"

#define QV_UI_TEST_MAIN(TestClass)                                              \
    int main(int argc, char** argv) {                                           \
        qputenv("QT_QPA_PLATFORM", "offscreen");                                \
        QTemporaryDir home;                                                      \
        qputenv("HOME", home.path().toUtf8());                                   \
        qputenv("XDG_DATA_HOME", (home.path() + "/.local/share").toUtf8());    \
        qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toUtf8());       \
        QApplication app(argc, argv);                                            \
        qv::QVCryptoUseCheapParametersForTesting(true);                          \
        qv::QVConnectLayers();                                                   \
        TestClass test;                                                          \
        return QTest::qExec(&test, argc, argv);                                  \
    }
