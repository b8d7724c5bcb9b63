#pragma once
// The set-up assistant: a window that runs its steps (QVBaseAssistant) in
// order, with the list of steps on the left, the current step's page and the
// buttons "Go Back" and "Next". The mini form (for a single step later on, such
// as a further Folder Set) has no list of steps.
//
// The list of steps is open: steps of other features are inserted with
// insertAssistant / insertNextAssistant, before or after run().
#include <QHBoxLayout>
#include <QListWidget>
#include <QPushButton>
#include <QStackedWidget>
#include <QVariantMap>
#include <QWidget>
#include <vector>

#include "vault/DBMaster.h"

namespace qv::ui {

class QVBaseAssistant;

class QVSetupAssistant : public QWidget {
    Q_OBJECT
public:
    enum class Form { Full, Mini };
    explicit QVSetupAssistant(Form form = Form::Full, QWidget* parent = nullptr);

    // The first run: the welcome, the first password and Folder Set, the end,
    // on the database given to setDefaultDatabase (or the master file opened
    // here when none was given). The window deletes itself when closed.
    static QVSetupAssistant* showFirstRun(QWidget* parent = nullptr);
    // The master database the application opened at launch, for the steps.
    static void setDefaultDatabase(DBMasterRef master);

    DBMasterRef database() const { return database_; }
    void setDatabase(DBMasterRef master) { database_ = std::move(master); }

    // The steps; the assistant takes ownership.
    void addAssistant(QVBaseAssistant* step);
    void insertAssistant(int index, QVBaseAssistant* step);
    // Right after the current step.
    void insertNextAssistant(QVBaseAssistant* step);
    int count() const { return int(steps_.size()); }
    QVBaseAssistant* assistantAt(int index) const;
    QVBaseAssistant* currentAssistant() const { return assistantAt(current_); }
    int currentIndex() const { return current_; }
    // The index of the first step of that class (its meta-object), or -1.
    int indexOfAssistantOfClass(const QMetaObject& type) const;
    bool containsAssistantOfClass(const QMetaObject& type) const { return indexOfAssistantOfClass(type) >= 0; }

    // Shows the window on the current step. With setModal(true), application-modal.
    void run();
    void setModal(bool modal) { modal_ = modal; }
    // Back to the first step.
    void reset();
    void selectStep(int index);
    void runNextAssistant();
    void runPreviousAssistant();
    // The window closes without finishing.
    void dismissAssistant();

    QPushButton* prevButton() const { return prevButton_; }
    QPushButton* nextButton() const { return nextButton_; }
    QListWidget* stepList() const { return stepList_; }
    // A step's own button, placed just left of "Next".
    void addButtonBeforeNext(QPushButton* button);

    // Values that steps pass on to each other.
    void setObject(const QString& key, const QVariant& value) { objects_.insert(key, value); }
    QVariant objectForKey(const QString& key) const { return objects_.value(key); }

    // Set to true by the step that made a Folder Set.
    static constexpr const char* kSetCreatedKey = "QVSetupCreatedSet";

signals:
    // A step is done and the next one comes.
    void assistantDidFinish(qv::ui::QVBaseAssistant* step);
    // Past the last step.
    void setupAssistantFinished();
    void setupAssistantWasDismissed();
    // The assistant is gone, by its end or dismissed; whether a Folder Set was made.
    void finished(bool setCreated);

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void runAssistant(int index);
    void fillStepList();
    bool setCreated() const { return objectForKey(kSetCreatedKey).toBool(); }

    const Form form_;
    std::vector<QVBaseAssistant*> steps_;
    int current_ = 0;
    bool modal_ = false;
    bool ended_ = false;
    DBMasterRef database_;
    QVariantMap objects_;
    QListWidget* stepList_ = nullptr;
    QStackedWidget* box_ = nullptr;
    QPushButton* prevButton_ = nullptr;
    QPushButton* nextButton_ = nullptr;
    QHBoxLayout* buttonRow_ = nullptr;
};

} // namespace qv::ui
