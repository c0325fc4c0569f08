#include "vandrel/core/LeadTypes.h"

#include <cstdlib>
#include <string>

#include "vandrel/core/Ports.h"
#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"

const char* const leadTypeNames[kLeadTypeCount] = {
    "integer", "boolean", "double", "vector", "quaternion", "object ptr", "object id",
};

int leadTypeSize(eLeadType t) {
    switch (t) {
        case LEAD_INT: return 4;
        case LEAD_BOOL: return 1;
        case LEAD_DOUBLE: return 8;
        case LEAD_VECTOR: return 24;
        case LEAD_QUATERNION: return 32;
        case LEAD_OBJECT_PTR: return 1;
        case LEAD_OBJECT_ID: return 4;
    }
    // Only a programming error can get here: every type read from a file is checked.
    std::abort();
}

namespace {

const wConcreteLeadCreator<int, LEAD_INT> intCreator;
const wConcreteLeadCreator<bool, LEAD_BOOL> boolCreator;
const wConcreteLeadCreator<double, LEAD_DOUBLE> doubleCreator;
const wConcreteLeadCreator<Vec3d, LEAD_VECTOR> vectorCreator;
const wConcreteLeadCreator<Rot3d, LEAD_QUATERNION> quaternionCreator;
const wConcreteLeadCreator<wWireObjectPtrBase, LEAD_OBJECT_PTR> objectPtrCreator;
const wConcreteLeadCreator<unsigned int, LEAD_OBJECT_ID> objectIdCreator;

// Indexed by eLeadType.
const wLeadCreator* const leadCreators[kLeadTypeCount] = {
    &intCreator,        &boolCreator,      &doubleCreator,   &vectorCreator,
    &quaternionCreator, &objectPtrCreator, &objectIdCreator,
};

}  // namespace

const wLeadCreator& leadCreator(eLeadType t) {
    if (!isValidLeadType(t)) std::abort();
    return *leadCreators[t];
}

wOutputPortArray::wOutputPortArray(const wLeadList& leads) {
    ports_.reserve(leads.size());
    for (const wLeadDescription& lead : leads) ports_.emplace_back(leadCreator(lead.type).createOutputPort());
}

wOutputPortArray::~wOutputPortArray() = default;

// ---- Lead lists in scheme files

void saveLeadList(Lua::Loader& loader, std::string_view key, const wLeadList& leads) {
    loader.createSubtable(key);
    int index = 1;
    for (const wLeadDescription& lead : leads) {
        loader.createSubtable(index++);
        loader.setString("name", lead.name);
        loader.setInt("type", static_cast<int>(lead.type));
        loader.endSubtable();
    }
    loader.endSubtable();
}

void saveLeadNames(Lua::Loader& loader, std::string_view key, const wLeadList& leads) {
    loader.createSubtable(key);
    for (std::size_t i = 0; i < leads.size(); ++i) {
        loader.createSubtable(static_cast<int>(i) + 1);
        loader.setString("name", leads[i].name);
        loader.endSubtable();
    }
    loader.endSubtable();
}

wLeadDescription loadLeadDescription(Lua::Loader& loader) {
    wLeadDescription lead;
    lead.name = loader.getString("name");
    const int type = loader.getInt("type");
    if (!isValidLeadType(type))
        throw wSimulationException("Invalid lead type (" + lead.name + "): " + std::to_string(type));
    lead.type = static_cast<eLeadType>(type);
    return lead;
}

wLeadList loadLeadList(Lua::Loader& loader, std::string_view key) {
    wLeadList leads;
    loader.beginSubtable(key);
    loader.beginArray();
    while (loader.nextArray()) leads.push_back(loadLeadDescription(loader));
    loader.endSubtable();
    return leads;
}
