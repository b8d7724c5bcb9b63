#include "ui/assistant/QVSetupAssistant.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QScreen>
#include <QVBoxLayout>

#include "toolkit/Log.h"
#include "ui/assistant/QVBaseAssistant.h"
#include "ui/assistant/SetupPack.h"
#include "vault/Locations.h"

namespace qv::ui {

namespace {

DBMasterRef& defaultDatabase() {
    static DBMasterRef master;
    return master;
}

} // namespace

QVSetupAssistant::QVSetupAssistant(Form form, QWidget* parent) : QWidget(parent, Qt::Window), form_(form) {
    setWindowTitle(form == Form::Full ? tr("Quillvane Setup Assistant") : tr("Quillvane"));
    auto* outer = new QVBoxLayout(this);
    auto* body = new QHBoxLayout();
    body->setSpacing(16);
    if (form == Form::Full) {
        stepList_ = new QListWidget(this);
        stepList_->setFocusPolicy(Qt::NoFocus);
        stepList_->setSelectionMode(QAbstractItemView::SingleSelection);
        stepList_->setAttribute(Qt::WA_TransparentForMouseEvents);
        stepList_->setFrameShape(QFrame::NoFrame);
        stepList_->setBackgroundRole(QPalette::Window);
        stepList_->setFixedWidth(fontMetrics().averageCharWidth() * 22);
        stepList_->setSpacing(3);
        stepList_->setAccessibleName(tr("Steps"));
        body->addWidget(stepList_);
    }
    box_ = new QStackedWidget(this);
    // Room for the longest page of text without a cramped look; fonts scale it.
    box_->setMinimumSize(fontMetrics().averageCharWidth() * 60, fontMetrics().height() * 16);
    body->addWidget(box_, 1);
    outer->addLayout(body, 1);

    auto* buttons = buttonRow_ = new QHBoxLayout();
    prevButton_ = new QPushButton(tr("Go Back"), this);
    nextButton_ = new QPushButton(tr("Next"), this);
    nextButton_->setDefault(true);
    nextButton_->setAutoDefault(true);
    buttons->addWidget(prevButton_);
    buttons->addStretch(1);
    buttons->addWidget(nextButton_);
    outer->addLayout(buttons);
    connect(prevButton_, &QPushButton::clicked, this, [this] {
        if (auto* step = currentAssistant()) step->prevPressed();
    });
    connect(nextButton_, &QPushButton::clicked, this, [this] {
        if (auto* step = currentAssistant()) step->nextPressed();
    });
}

void QVSetupAssistant::addButtonBeforeNext(QPushButton* button) {
    buttonRow_->insertWidget(buttonRow_->indexOf(nextButton_), button);
}

void QVSetupAssistant::setDefaultDatabase(DBMasterRef master) { defaultDatabase() = std::move(master); }

QVSetupAssistant* QVSetupAssistant::showFirstRun(QWidget* parent) {
    auto* assistant = new QVSetupAssistant(Form::Full, parent);
    assistant->setAttribute(Qt::WA_DeleteOnClose);
    DBMasterRef master = defaultDatabase();
    if (!master) {
        QVError error;
        master = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), true, &error);
        if (!master) QV_LOG_ERROR("couldn't open the master file for the set-up assistant: " + error.description);
    }
    assistant->setDatabase(master);
    fillSetupAssistant(*assistant);
    assistant->run();
    return assistant;
}

void QVSetupAssistant::addAssistant(QVBaseAssistant* step) { insertAssistant(count(), step); }

void QVSetupAssistant::insertNextAssistant(QVBaseAssistant* step) {
    insertAssistant(count() == 0 ? 0 : current_ + 1, step);
}

void QVSetupAssistant::insertAssistant(int index, QVBaseAssistant* step) {
    if (!step) return;
    index = std::clamp(index, 0, count());
    step->setController(this);
    steps_.insert(steps_.begin() + index, step);
    box_->insertWidget(index, step);
    if (index <= current_ && count() > 1 && isVisible()) ++current_;
    fillStepList();
}

QVBaseAssistant* QVSetupAssistant::assistantAt(int index) const {
    return index >= 0 && index < count() ? steps_[size_t(index)] : nullptr;
}

int QVSetupAssistant::indexOfAssistantOfClass(const QMetaObject& type) const {
    for (int i = 0; i < count(); ++i)
        if (steps_[size_t(i)]->metaObject()->inherits(&type)) return i;
    return -1;
}

void QVSetupAssistant::fillStepList() {
    if (!stepList_) return;
    stepList_->clear();
    for (QVBaseAssistant* step : steps_)
        for (const QString& title : step->orderedSteps()) {
            auto* item = new QListWidgetItem(title, stepList_);
            item->setData(Qt::UserRole, QVariant::fromValue(static_cast<QObject*>(step)));
        }
    selectStep(current_);
}

void QVSetupAssistant::selectStep(int index) {
    if (!stepList_) return;
    QVBaseAssistant* step = assistantAt(index);
    for (int row = 0; row < stepList_->count(); ++row) {
        QListWidgetItem* item = stepList_->item(row);
        if (item->data(Qt::UserRole).value<QObject*>() == step) {
            stepList_->setCurrentItem(item);
            return;
        }
    }
    stepList_->clearSelection();
}

void QVSetupAssistant::run() {
    ended_ = false;
    fillStepList();
    runAssistant(current_);
    adjustSize();
    if (QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame = geometry();
        frame.moveCenter(screen->availableGeometry().center());
        move(frame.topLeft());
    }
    if (modal_) setWindowModality(Qt::ApplicationModal);
    show();
    raise();
    activateWindow();
}

void QVSetupAssistant::runAssistant(int index) {
    QVBaseAssistant* step = assistantAt(index);
    if (!step) return;
    current_ = index;
    prevButton_->setText(tr("Go Back"));
    prevButton_->setVisible(true);
    prevButton_->setEnabled(index > 0);
    nextButton_->setText(tr("Next"));
    nextButton_->setVisible(true);
    nextButton_->setEnabled(true);
    box_->setCurrentWidget(step);
    step->setFocus();
    selectStep(index);
    step->start();
}

void QVSetupAssistant::runNextAssistant() {
    QVBaseAssistant* step = currentAssistant();
    emit assistantDidFinish(step);
    if (current_ + 1 < count()) {
        runAssistant(current_ + 1);
        return;
    }
    reset();
    ended_ = true;
    emit setupAssistantFinished();
    emit finished(setCreated());
    close();
}

void QVSetupAssistant::runPreviousAssistant() {
    if (current_ > 0) runAssistant(current_ - 1);
}

void QVSetupAssistant::reset() {
    current_ = 0;
    selectStep(0);
}

void QVSetupAssistant::dismissAssistant() {
    if (ended_) return;
    ended_ = true;
    emit setupAssistantWasDismissed();
    emit finished(setCreated());
    close();
}

void QVSetupAssistant::closeEvent(QCloseEvent* event) {
    dismissAssistant();
    event->accept();
}

} // namespace qv::ui
