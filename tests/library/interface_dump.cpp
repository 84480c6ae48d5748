// Prints the whole interface from the library's own descriptions: every type, every method, every name. Native sizes
// and offsets are those of the 32-bit targets, computed, so that the text is the same on every machine; where the
// machine is one of them, they are compared with what the compiler laid out.
//
//   interface_dump VERSION_SCRIPT LIST_OF_IMPORTS
#define VELTO_NAMES_ONLY
#include "velto/registry.h"

TARN_UNIT()

#include "server/frame.h"
#include "tarn_sysdiag/client/agent.h"
#include "tarn_sysdiag/client/master.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

#include <cstdio>
#include <exception>

#include "tests/library/name_list.h"

namespace {
using velto::Kind;
using velto::SlotShape;
using velto::TypeInfo;

const TypeInfo &TypeOf(const velto::TypeShape &shape) {
    for (const TypeInfo &type : velto::Registry()) {
        if (type.shape == &shape) {
            return type;
        }
    }
    throw std::runtime_error("a type that is not registered");
}

// The layout of the 32-bit targets: pointers have 4 bytes, 64-bit members stand at multiples of 8.
struct Layout {
    uint32_t size = 0, alignment = 1;
    std::vector<uint32_t> offsets, countOffsets; // of each slot

    uint32_t Add(uint32_t memberSize, uint32_t memberAlignment) {
        const uint32_t offset = velto::AlignUp(size, memberAlignment);
        size = offset + memberSize;
        alignment = std::max(alignment, memberAlignment);
        return offset;
    }
};

Layout LayoutOf(const TypeInfo &type) {
    Layout layout;
    for (size_t i = 0; i < type.shape->slotNum; ++i) {
        const SlotShape &slot = type.shape->Slot(i);
        const bool isVector = velto::IsVectorKind(slot.kind);
        layout.countOffsets.push_back(isVector ? layout.Add(4, 4) : 0);
        if (isVector || slot.kind == Kind::kString) {
            layout.offsets.push_back(layout.Add(4, 4));
        } else if (velto::IsTableKind(slot.kind)) {
            const Layout element = LayoutOf(TypeOf(*type.shape->Element(slot).type));
            const uint32_t num = slot.kind == Kind::kTableRun ? slot.length : 1;
            layout.offsets.push_back(layout.Add(num * element.size, element.alignment));
        } else {
            const uint32_t num = slot.kind == Kind::kScalar ? 1 : slot.length;
            layout.offsets.push_back(layout.Add(num * slot.width, slot.width));
        }
    }
    layout.size = velto::AlignUp(layout.size, layout.alignment);
    return layout;
}

void CheckLayout(const TypeInfo &type, const Layout &layout) {
    bool same = layout.size == type.shape->size;
    for (size_t i = 0; i < type.shape->slotNum; ++i) {
        const SlotShape &slot = type.shape->Slot(i);
        same = same && layout.offsets[i] == slot.offset;
        same = same && (!velto::IsVectorKind(slot.kind) || layout.countOffsets[i] == slot.length);
    }
    if (sizeof(void *) == 4 && !same) {
        throw std::runtime_error(std::string(type.name) + ": the compiler's layout is not the computed one");
    }
}

std::string KindText(const TypeInfo &type, const SlotShape &slot) {
    const std::string length = "[" + std::to_string(slot.length) + "]";
    const auto element = [&] { return std::string(TypeOf(*type.shape->Element(slot).type).name); };
    switch (slot.kind) {
    case Kind::kScalar:
        return "u" + std::to_string(8 * slot.width);
    case Kind::kString:
        return "string";
    case Kind::kBytes:
        return "bytes" + length;
    case Kind::kArray64:
        return "u64" + length;
    case Kind::kTable:
        return "table " + element();
    case Kind::kTableRun:
        return "tables " + element() + length;
    case Kind::kByteVector:
        return "vector of u8";
    case Kind::kVector32:
        return "vector of u32";
    case Kind::kTableVector:
        return "vector of " + element();
    case Kind::kUnsupported:
        break;
    }
    throw std::runtime_error(std::string(type.name) + ": a slot of no kind");
}

void PrintType(const TypeInfo &type) {
    const Layout layout = LayoutOf(type);
    CheckLayout(type, layout);
    printf("\n%s\n    hash 0x%08X, native size %u, ", type.name, type.hash, layout.size);
    if (type.fixedSize != nullptr) {
        printf("fixed size %u\n", type.fixedSize());
    } else {
        printf("owns memory\n");
    }
    for (size_t i = 0; i < type.shape->slotNum; ++i) {
        const SlotShape &slot = type.shape->Slot(i);
        const velto::SlotName &name = type.slotNames[i];
        printf("    %2zu  %-44s %-20s at %u", i, KindText(type, slot).c_str(), name.member, layout.offsets[i]);
        if (name.count != nullptr) {
            printf(", %s at %u", name.count, layout.countOffsets[i]);
        }
        if (type.fixedOffsets != nullptr) {
            printf(", fixed %u", type.fixedOffsets[i]);
        }
        printf("\n");
    }
}

void PrintMessage(const char *role, const char *type) {
    printf("        %-9s %s 0x%08X\n", role, type, velto::TypeHash(type));
}

const char *ShapeText(server::Shape shape) {
    switch (shape) {
    case server::Shape::kFixedReply:
        return "fixed reply";
    case server::Shape::kVariableReply:
        return "variable reply";
    case server::Shape::kOwningRequest:
        return "owning request";
    case server::Shape::kLargeRequest:
        return "large request";
    case server::Shape::kOneway:
        return "one-way";
    case server::Shape::kOnewayOwningRequest:
        return "one-way, owning request";
    }
    return "";
}

void PrintProxy(const char *name, const char *request, const char *response) {
    printf("    %s: %s\n", name, response != nullptr ? "SetIdl, call, async" : "SetIdl, call, async, oneway");
    PrintMessage("request", request);
    if (response != nullptr) {
        PrintMessage("response", response);
    }
}

void PrintServed(uint32_t index, const char *name, server::Shape shape, const char *request, const char *response) {
    printf("    %u %s: %s\n", index, name, ShapeText(shape));
    PrintMessage("request", request);
    if (response != nullptr) {
        PrintMessage("response", response);
    }
}

void PrintMethods() {
    uint32_t index = 0;
#define TARN_METHOD(method, request, response) PrintProxy(#method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) PrintProxy(#method, #request, nullptr);
    printf("\nRemote service TarnSysdiagAgent\n");
#include "tarn_sysdiag/client/agent_methods.h"
#define TARN_METHOD(method, request, response) PrintProxy(#method, #request, #response);
#define TARN_METHOD_NO_REPLY(method, request) PrintProxy(#method, #request, nullptr);
    printf("\nRemote service TarnSysdiagMaster\n");
#include "tarn_sysdiag/client/master_methods.h"
#define SERVED(method, request, response)                                                                              \
    PrintServed(++index, #method, server::ShapeOf<Tarn_sys_diag_##request, Tarn_sys_diag_##response>(), #request,      \
                #response);
#define SERVED_NO_REPLY(method, request)                                                                               \
    PrintServed(++index, #method, server::ShapeOf<Tarn_sys_diag_##request, server::NoReply>(), #request, nullptr);
#define TARN_METHOD SERVED
#define TARN_METHOD_NO_REPLY SERVED_NO_REPLY
    printf("\nServed service TarnSysdiagTarnd\n");
#include "tarn_sysdiag/server/tarnd_methods.h"
#define TARN_METHOD SERVED
#define TARN_METHOD_NO_REPLY SERVED_NO_REPLY
    index = 0;
    printf("\nServed service TarnSysdiagTarndAgent\n");
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
}

void PrintNames(const char *title, const char *path) {
    const auto names = ReadNames(path);
    printf("\n%s: %zu names\n", title, names.size());
    for (const std::string &name : names) {
        printf("    %s\n", name.c_str());
    }
}
} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: interface_dump VERSION_SCRIPT LIST_OF_IMPORTS\n");
        return 2;
    }
    try {
        printf(
            "The interface of libtarn_sysdiag_rook_tarnd. Native sizes and offsets are those of the 32-bit targets.\n");
        printf("\nTypes: %zu, each with its slots: wire kind, member and its native offset, and in the fixed form its "
               "offset in the table\n",
               velto::Registry().size());
        for (const TypeInfo &type : velto::Registry()) {
            PrintType(type);
        }
        PrintMethods();
        PrintNames("Exports", argv[1]);
        PrintNames("Imports besides the C library", argv[2]);
    } catch (const std::exception &error) {
        fprintf(stderr, "interface_dump: %s\n", error.what());
        return 1;
    }
    return 0;
}
