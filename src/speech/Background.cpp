#include "speech/Background.h"

namespace Background {

QThreadPool& pool()
{
    static QThreadPool* const instance = [] {
        auto* p = new QThreadPool;
        p->setMaxThreadCount(16);
        p->setExpiryTimeout(30000);
        return p;
    }();
    return *instance;
}

}  // namespace Background
