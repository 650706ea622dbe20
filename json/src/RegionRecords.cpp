#include "json/RegionRecords.h"

#include "RecordMembers.h"

namespace JsonReflect {

template class Record<IsolationItem>;
template class Record<DeIsolateParams>;
template class Record<FilterRegionItem>;

}  // namespace JsonReflect
