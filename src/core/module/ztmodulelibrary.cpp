#include "ztmodulelibrary.h"

int ztModulePointerType(bool stream)
{
    return stream ? qMetaTypeId<ZtMIStream *>() : qMetaTypeId<ZtMIExtended *>();
}
