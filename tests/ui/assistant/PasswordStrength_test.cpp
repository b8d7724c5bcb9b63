// The strength score of a new password and the word shown for it.
#include "ui/UiTestMain.h"
#include "ui/assistant/PasswordStrength.h"

using qv::ui::QVPasswordStrength;
using Level = QVPasswordStrength::Level;

class PasswordStrengthTest : public QObject {
    Q_OBJECT
private slots:
    void scores_data() {
        QTest::addColumn<QString>("password");
        QTest::addColumn<int>("score");
        QTest::newRow("empty") << "" << 0;
        QTest::newRow("three letters score their length") << "abc" << 3;
        QTest::newRow("three specials too") << "!!!" << 3;
        QTest::newRow("four lower-case letters") << "abcd" << 16 - 10;
        QTest::newRow("four digits") << "1234" << 16 + 5 - 10;
        QTest::newRow("twelve digits") << "123456789012" << 48 + 5 - 10;
        QTest::newRow("one of each kind in four") << "aB3!" << 16 + 5 + 5 + 10 + 10 + 10;
        QTest::newRow("both cases only") << "abCD" << 16 + 5 - 10;
        QTest::newRow("letters and two digits") << "abcd12" << 24 + 10;
        QTest::newRow("two specials") << "ab.-" << 16 + 5 + 5 + 10;
        // Nine characters: each pair of kinds gives 15.
        QTest::newRow("nine of letters, digits and a special") << "abcdef12!" << 36 + 5 + 15 + 15 + 15;
        QTest::newRow("eight of the same kinds") << "abcde12!" << 32 + 5 + 10 + 10 + 10;
        QTest::newRow("letters with a space are not only letters") << "abc def" << 28;
        QTest::newRow("a long mixed password is capped") << "Correct-Horse.Battery+Staple42!" << 100;
        // Characters, not bytes: three accented letters are three.
        QTest::newRow("non-ASCII length") << QString::fromUtf8("\xc3\xa9\xc3\xa9\xc3\xa9") << 3;
        QTest::newRow("non-ASCII letters are no ASCII letters")
            << QString::fromUtf8("\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9") << 16;
    }
    void scores() {
        QFETCH(QString, password);
        QFETCH(int, score);
        QCOMPARE(QVPasswordStrength::score(password), score);
    }

    void levelBoundaries() {
        QCOMPARE(QVPasswordStrength::levelOf(0), Level::Weak);
        QCOMPARE(QVPasswordStrength::levelOf(34), Level::Weak);
        QCOMPARE(QVPasswordStrength::levelOf(35), Level::Good);
        QCOMPARE(QVPasswordStrength::levelOf(60), Level::Good);
        QCOMPARE(QVPasswordStrength::levelOf(61), Level::Strong);
        QCOMPARE(QVPasswordStrength::levelText(Level::Weak), QStringLiteral("Weak"));
        QCOMPARE(QVPasswordStrength::levelText(Level::Strong), QStringLiteral("Strong"));
    }

    void noScoreLeavesZeroToHundred() {
        QString s;
        for (int i = 0; i < 200; ++i) {
            s += QChar(u"aZ9!"[i % 4]);
            const int score = QVPasswordStrength::score(s);
            QVERIFY(score >= 0 && score <= 100);
        }
    }
};

QV_UI_TEST_MAIN(PasswordStrengthTest)
#include "PasswordStrength_test.moc"
