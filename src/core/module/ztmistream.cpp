#include "ztmistream.h"

namespace {

// The kernel takes a module out of the variant that a library's instance() returns; modules
// that hand themselves over as ZtMIStream* need the pointer type known by that name.
void registerPointerType()
{
    static const int id = qRegisterMetaType<ZtMIStream *>("ZtMIStream*");
    Q_UNUSED(id)
}

} // namespace

ZtMIStream::ZtMIStream(int id, QObject *parent)
    : ZtMIFound(id, parent)
{
    registerPointerType();
    mt = ModStream;
    connect(this, &ZtMIStream::myStatus, this, QOverload<QString>::of(&ZtMIFound::state));
}

ZtMIStream::ZtMIStream(const ZtMIStream &other, QObject *parent)
    : ZtMIFound(other, parent)
{
    connect(this, &ZtMIStream::myStatus, this, QOverload<QString>::of(&ZtMIFound::state));
}

void ZtMIStream::StartProcessing(QVariantList data)
{
    Q_UNUSED(data)
}
