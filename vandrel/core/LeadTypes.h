#pragma once
// Lead types: the seven value types that wires and ports carry, their slot sizes in the
// data area, the description of one lead, and the per-type creators of port objects.
#include <cstdint>
#include <memory>
#include <string_view>

#include <boost/container/small_vector.hpp>

#include "vandrel/platform/Math.h"
#include "vandrel/platform/String.h"

// Persisted as integers in scheme files: never renumber.
enum eLeadType : std::int32_t {
    LEAD_INT = 0,         // int32, 4 bytes
    LEAD_BOOL = 1,        // bool, 1 byte
    LEAD_DOUBLE = 2,      // double, 8 bytes
    LEAD_VECTOR = 3,      // Vec3d, 24 bytes
    LEAD_QUATERNION = 4,  // Math::Rotation3<double>, 32 bytes
    LEAD_OBJECT_PTR = 5,  // ports only; a wire reserves 1 byte that nothing reads
    LEAD_OBJECT_ID = 6,   // uint32, 4 bytes
};
inline constexpr int kLeadTypeCount = 7;

// Display names, indexed by eLeadType: "integer", "boolean", ... "object id".
extern const char* const leadTypeNames[kLeadTypeCount];

inline constexpr bool isValidLeadType(int t) { return t >= 0 && t < kLeadTypeCount; }

// Slot size in bytes of a wire of type t. Aborts on a value outside 0..6, which can only
// come from a programming error (files are checked when read).
int leadTypeSize(eLeadType t);

struct wLeadDescription {
    zo::string name;
    eLeadType type = LEAD_DOUBLE;

    bool operator==(const wLeadDescription& o) const { return name == o.name && type == o.type; }
};

// A block's list of leads of one kind; sixteen fit without touching the heap.
using wLeadList = boost::container::small_vector<wLeadDescription, 16, zo::allocator<wLeadDescription>>;

namespace Lua {
class Loader;
}

// Lead lists in files: an array of { name = "...", type = n } tables, n an eLeadType.
// saveLeadList creates the array under `key` of the loader's current table.
void saveLeadList(Lua::Loader& loader, std::string_view key, const wLeadList& leads);
// Reads the array under `key` (it must exist) of the current table, in array order.
// A missing name throws Lua::LoaderException "<path> failed to Lua::Loader::getString";
// a type outside 0..6 throws wSimulationException "Invalid lead type (<name>): <value>".
wLeadList loadLeadList(Lua::Loader& loader, std::string_view key);
// One element of such an array: reads "name" and "type" of the loader's current table,
// with the checks above (for readers that test each lead, e.g. for duplicates).
wLeadDescription loadLeadDescription(Lua::Loader& loader);
// Writes only the names, as an array of { name = "..." } under `key` (blocks whose lead
// types follow from the block class).
void saveLeadNames(Lua::Loader& loader, std::string_view key, const wLeadList& leads);

class wInputPortBase;
class wOutputPortBase;

// Factory of the port objects of one lead type; the ports it returns belong to the
// caller. The implementation, wConcreteLeadCreator<T, eLeadType>, is in Ports.h.
class wLeadCreator {
public:
    virtual ~wLeadCreator() = default;
    virtual wInputPortBase* createInputPort() const = 0;
    virtual wOutputPortBase* createOutputPort() const = 0;
};

// The creator of lead type t (0..6).
const wLeadCreator& leadCreator(eLeadType t);

// One output port per lead, in list order, owned by the array. Empty for an empty list.
// Throws "Cannot create output port of type wWireObjectPtrBase" for an "object ptr" lead.
class wOutputPortArray {
public:
    wOutputPortArray() = default;
    explicit wOutputPortArray(const wLeadList& leads);
    wOutputPortArray(wOutputPortArray&&) noexcept = default;
    wOutputPortArray& operator=(wOutputPortArray&&) noexcept = default;
    ~wOutputPortArray();

    std::size_t size() const { return ports_.size(); }
    bool empty() const { return ports_.empty(); }
    wOutputPortBase* operator[](std::size_t i) const { return ports_[i].get(); }

private:
    zo::vector<std::unique_ptr<wOutputPortBase>> ports_;
};
