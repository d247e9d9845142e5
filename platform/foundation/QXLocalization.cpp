#include "qxmedia/platform/foundation/QXLocalization.h"

#include <memory>
#include <mutex>

namespace {

std::mutex& translatorLock()
{
    static std::mutex lock;
    return lock;
}

std::shared_ptr<const QXTranslator>& currentTranslator()
{
    static std::shared_ptr<const QXTranslator> translator;
    return translator;
}

} // namespace

void QXSetTranslator(QXTranslator translator)
{
    std::shared_ptr<const QXTranslator> next;
    if (translator) next = std::make_shared<const QXTranslator>(std::move(translator));
    std::lock_guard guard(translatorLock());
    currentTranslator() = std::move(next);
}

std::string QXLocalizedString(std::string_view key)
{
    std::shared_ptr<const QXTranslator> translator;
    {
        std::lock_guard guard(translatorLock());
        translator = currentTranslator();
    }
    if (!translator) return std::string(key);
    std::string text = (*translator)(key);
    // An empty answer means "not translated": the key stands for itself.
    return text.empty() ? std::string(key) : text;
}
