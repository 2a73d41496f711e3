#include "app/FVRunOutcome.h"

#include "app/FVQtStrings.h"

#include <QCryptographicHash>
#include <QLocale>
#include <QSettings>

#include <cstring>

namespace ferrovane {

namespace {

// Paths hold slashes, which settings take for groups.
QString groupFor(const QString& destination) {
    return "lastRun/" + QString::fromLatin1(QCryptographicHash::hash(destination.toUtf8(), QCryptographicHash::Sha1).toHex());
}

template <class... Args>
QString plural(const char* key, long long count, Args&&... args) {
    return QString::fromStdString(FVStrings::formatPlural(key, count, std::forward<Args>(args)...));
}

}  // namespace

FVRunOutcome FVRunOutcome::load(const QString& destination) {
    QSettings settings;
    settings.beginGroup(groupFor(destination));
    FVRunOutcome outcome;
    outcome.state_ = static_cast<State>(settings.value("state", int(State::Never)).toInt());
    outcome.time_ = settings.value("time").toDateTime();
    for (const QString& error : settings.value("errors").toStringList()) outcome.errors_.push_back(error.toStdString());
    outcome.interruptedSource_ = settings.value("interrupted").toString().toStdString();
    outcome.interruptedCopied_ = settings.value("interruptedCopied", -1).toLongLong();
    outcome.destinationFailure_ = settings.value("destinationFailure").toString().toStdString();
    if (outcome.state_ != State::Finished && outcome.state_ != State::Stopped && outcome.state_ != State::NoRoom)
        outcome.state_ = State::Never;
    return outcome;
}

void FVRunOutcome::save(const QString& destination) const {
    QSettings settings;
    settings.beginGroup(groupFor(destination));
    settings.setValue("state", int(state_));
    settings.setValue("time", time_);
    QStringList errors;
    for (const std::string& error : errors_) errors << QString::fromStdString(error);
    settings.setValue("errors", errors);
    settings.setValue("interrupted", QString::fromStdString(interruptedSource_));
    settings.setValue("interruptedCopied", interruptedCopied_);
    settings.setValue("destinationFailure", QString::fromStdString(destinationFailure_));
}

// Short enough for a row: the date in the locale's short form, minutes without seconds.
QString FVRunOutcome::stamp(const QDateTime& time) {
    QLocale locale;
    QString minutes = locale.timeFormat(QLocale::ShortFormat).remove(QStringLiteral(":ss"));
    return locale.toString(time.date(), QLocale::NarrowFormat) + ' ' + locale.toString(time.time(), minutes);
}

// The failure's line without its log prefix and closing words, for a sentence of the window.
std::string FVRunOutcome::causeOf(const std::string& line) {
    std::string cause = line;
    for (const char* prefix : {"ERROR: ", "Aborting: "})
        if (cause.rfind(prefix, 0) == 0) cause.erase(0, std::strlen(prefix));
    for (const char* suffix : {" Aborting backup.", "."})
        if (cause.size() > std::strlen(suffix) && cause.compare(cause.size() - std::strlen(suffix), std::string::npos, suffix) == 0)
            cause.erase(cause.size() - std::strlen(suffix));
    return cause;
}

QString FVRunOutcome::headline() const {
    const std::string when = stamp(time_).toStdString();
    const auto count = static_cast<long long>(errors_.size());
    switch (state_) {
    case State::Never:
        return localized("lastrunnever");
    case State::Finished:
        return count == 0 ? localizedFormat("lastrunfinished", when) : plural("lastrunerrors", count, when);
    case State::Stopped:
        if (!destinationFailure_.empty()) return localizedFormat("lastrundiskfailed", when, causeOf(destinationFailure_));
        return count == 0 ? localizedFormat("lastrunstopped", when) : plural("lastrunstoppederrors", count, when);
    case State::NoRoom:
        return localizedFormat("lastrunnoroom", when);
    }
    return {};
}

long long FVRunOutcome::errorCountFor(const std::string& sourcePath) const {
    long long count = 0;
    for (const std::string& error : errors_) {
        size_t at = error.find(sourcePath);
        if (at == std::string::npos) continue;
        size_t end = at + sourcePath.size();
        // The source itself or something in it, not a sibling that shares the prefix.
        if (sourcePath == "/" || end == error.size() || std::strchr("/:\"' \n", error[end]) != nullptr) ++count;
    }
    return count;
}

}  // namespace ferrovane
