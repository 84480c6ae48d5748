// Writes the peers' schemas from the library's own descriptions, so that all describe the same fields, and the code
// that carries native records to the peers' objects and back.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "bench/messages.h"
#include "bench/types.h"

namespace {

using velto::Kind;
using velto::SlotShape;
using velto::TypeInfo;
using Types = std::vector<const TypeInfo *>;

// For all types the arrays are short: their length is no code, and no object may pass nanopb's 64 KiB.
constexpr uint32_t kShortVector = 2, kShortText = 32;

const TypeInfo &ElementOf(const TypeInfo &type, const SlotShape &slot) {
    return bench::TypeOf(*type.shape->Element(slot).type);
}

// Calls visit(slot, name of its member, name of its count) for each slot.
template <class Visit>
void EachSlot(const TypeInfo &type, Visit visit) {
    for (uint32_t i = 0; i < type.shape->slotNum; ++i) {
        const velto::SlotName &name = type.slotNames[i];
        visit(type.shape->Slot(i), std::string(name.member), std::string(name.count == nullptr ? "" : name.count));
    }
}

void AddWithElements(const TypeInfo &type, Types &types) {
    if (std::find(types.begin(), types.end(), &type) != types.end()) {
        return;
    }
    EachSlot(type, [&](const SlotShape &slot, const std::string &, const std::string &) {
        if (IsTableKind(slot.kind)) {
            AddWithElements(ElementOf(type, slot), types);
        }
    });
    types.push_back(&type);
}

Types MeasuredTypes() {
    Types types;
    for (const bench::MessageSpec &spec : bench::kMessages) {
        AddWithElements(bench::FindType(spec.type), types);
    }
    return types;
}

Types AllTypes() {
    Types types;
    for (const TypeInfo &type : velto::Registry()) {
        types.push_back(&type);
    }
    return types;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string Capital(std::string text) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text;
}

std::string ProtoType(const TypeInfo &type, const SlotShape &slot) {
    switch (slot.kind) {
    case Kind::kScalar:
        return slot.width == 8 ? "uint64" : "uint32";
    case Kind::kArray64:
        return "repeated fixed64"; // for many numbers, the peer's fastest
    case Kind::kVector32:
        return "repeated fixed32";
    case Kind::kTable:
        return ElementOf(type, slot).name;
    case Kind::kTableRun:
    case Kind::kTableVector:
        return std::string("repeated ") + ElementOf(type, slot).name;
    default:
        return "bytes"; // the format does not ask texts to be UTF-8
    }
}

void WriteProto(std::ostream &out, const Types &types) {
    out << "syntax = \"proto3\";\npackage bench;\n";
    for (const TypeInfo *type : types) {
        out << "message " << type->name << " {\n";
        int number = 0;
        EachSlot(*type, [&](const SlotShape &slot, const std::string &name, const std::string &) {
            out << "    " << ProtoType(*type, slot) << ' ' << name << " = " << ++number << ";\n";
        });
        out << "}\n";
    }
}

// The largest vector of a measured type that nanopb measures.
uint32_t VectorLength(const TypeInfo &type) {
    uint32_t length = 0;
    for (const bench::MessageSpec &spec : bench::kMessages) {
        if (type.name == std::string(spec.type) && FitsNanopb(bench::MakeMessage(spec))) {
            length = std::max(length, spec.elementNum);
        }
    }
    return length;
}

enum class Sizes { kMeasured, kShort };

std::string NanopbOption(const TypeInfo &type, const SlotShape &slot, Sizes sizes) {
    const bool isShort = sizes == Sizes::kShort;
    switch (slot.kind) {
    case Kind::kScalar:
        return slot.width < 4 ? "int_size:IS_" + std::to_string(8 * slot.width) : "";
    case Kind::kBytes:
        return "max_size:" + std::to_string(slot.length) + " fixed_length:true";
    case Kind::kArray64:
    case Kind::kTableRun:
        return "max_count:" + std::to_string(slot.length) + " fixed_count:true";
    case Kind::kString: // as long as it is measured, too long for an array in the peer's structs
        return isShort ? "max_size:" + std::to_string(kShortText) : "type:FT_CALLBACK";
    case Kind::kByteVector:
        return "max_size:" + std::to_string(isShort ? kShortText : VectorLength(type));
    case Kind::kVector32:
    case Kind::kTableVector:
        return "max_count:" + std::to_string(isShort ? kShortVector : VectorLength(type));
    default:
        return "";
    }
}

void WriteNanopbOptions(std::ostream &out, const Types &types, Sizes sizes) {
    for (const TypeInfo *type : types) {
        EachSlot(*type, [&](const SlotShape &slot, const std::string &name, const std::string &) {
            const std::string option = NanopbOption(*type, slot, sizes);
            if (!option.empty()) {
                out << "bench." << type->name << '.' << name << ' ' << option << '\n';
            }
        });
    }
}

std::string CapnpType(const TypeInfo &type, const SlotShape &slot) {
    switch (slot.kind) {
    case Kind::kScalar:
        return "UInt" + std::to_string(8 * slot.width);
    case Kind::kString:
        return "Text";
    case Kind::kArray64:
        return "List(UInt64)";
    case Kind::kVector32:
        return "List(UInt32)";
    case Kind::kTable:
        return ElementOf(type, slot).name;
    case Kind::kTableRun:
    case Kind::kTableVector:
        return std::string("List(") + ElementOf(type, slot).name + ")";
    default:
        return "Data";
    }
}

void WriteCapnp(std::ostream &out, const Types &types) {
    out << "@0xb8a3c5f0d1e29746;\nusing Cxx = import \"/capnp/c++.capnp\";\n$Cxx.namespace(\"bench::capnp_schema\");\n";
    for (const TypeInfo *type : types) {
        out << "struct " << type->name << " {\n";
        int number = 0;
        EachSlot(*type, [&](const SlotShape &slot, const std::string &name, const std::string &) {
            out << "    " << name << " @" << number++ << " :" << CapnpType(*type, slot) << ";\n";
        });
        out << "}\n";
    }
}

// How one slot is carried to a peer's object and back. The helpers that the lines call stand in the peer's source.
struct Carrier {
    std::string fill, read;
};

Carrier ProtobufCarrier(const SlotShape &slot, const std::string &name, const std::string &count) {
    const std::string field = Lower(name), from = "from." + name, to = "to." + name;
    switch (slot.kind) {
    case Kind::kScalar:
        return {"to.set_" + field + "(" + from + ");", "Set(" + to + ", from." + field + "());"};
    case Kind::kTable:
        return {"Fill(" + from + ", *to.mutable_" + field + "());", "Read(from." + field + "(), " + to + ");"};
    case Kind::kString:
        return {"to.set_" + field + "(" + from + ");", "ReadText(from." + field + "(), " + to + ");"};
    case Kind::kBytes:
        return {"to.set_" + field + "(" + from + ", sizeof " + from + ");",
                "ReadBytes(from." + field + "(), " + to + ");"};
    case Kind::kArray64:
        return {"to.mutable_" + field + "()->Add(std::begin(" + from + "), std::end(" + from + "));",
                "ReadArray(from." + field + "(), " + to + ");"};
    case Kind::kVector32:
        return {"to.mutable_" + field + "()->Add(" + from + ", " + from + " + from." + count + ");",
                "ReadVector(from." + field + "(), " + to + ", to." + count + ");"};
    case Kind::kTableRun:
        return {"FillTables(" + from + ", std::size(" + from + "), *to.mutable_" + field + "());",
                "ReadRun(from." + field + "(), " + to + ");"};
    case Kind::kTableVector:
        return {"FillTables(" + from + ", from." + count + ", *to.mutable_" + field + "());",
                "ReadTables(from." + field + "(), " + to + ", to." + count + ");"};
    default:
        throw std::runtime_error("no measured type has had a byte vector so far: " + name);
    }
}

Carrier CapnpCarrier(const SlotShape &slot, const std::string &name, const std::string &count) {
    const std::string field = Capital(name), from = "from." + name, to = "to." + name, get = "from.get" + field + "()";
    switch (slot.kind) {
    case Kind::kScalar:
        return {"to.set" + field + "(" + from + ");", to + " = " + get + ";"};
    case Kind::kTable:
        return {"Fill(" + from + ", to.init" + field + "());", "Read(" + get + ", " + to + ");"};
    case Kind::kString:
        return {"to.set" + field + "(" + from + ");", "ReadText(" + get + ", " + to + ");"};
    case Kind::kBytes:
        return {"to.set" + field + "(Bytes(" + from + "));", "ReadBytes(" + get + ", " + to + ");"};
    case Kind::kArray64:
        return {"FillScalars(" + from + ", to.init" + field + "(std::size(" + from + ")));",
                "ReadArray(" + get + ", " + to + ");"};
    case Kind::kVector32:
        return {"FillScalars(" + from + ", to.init" + field + "(from." + count + "));",
                "ReadVector(" + get + ", " + to + ", to." + count + ");"};
    case Kind::kTableRun:
        return {"FillTables(" + from + ", to.init" + field + "(std::size(" + from + ")));",
                "ReadRun(" + get + ", " + to + ");"};
    case Kind::kTableVector:
        return {"FillTables(" + from + ", to.init" + field + "(from." + count + "));",
                "ReadTables(" + get + ", " + to + ", to." + count + ");"};
    default:
        throw std::runtime_error("no measured type has had a byte vector so far: " + name);
    }
}

Carrier NanopbCarrier(const SlotShape &slot, const std::string &name, const std::string &count) {
    const std::string from = "from." + name, to = "to." + name;
    const std::string both = from + ", " + to;
    switch (slot.kind) {
    case Kind::kScalar:
        return {to + " = " + from + ";", to + " = " + from + ";"};
    case Kind::kTable:
        return {"to.has_" + name + " = true; Fill(" + both + ");", "Read(" + both + ");"};
    case Kind::kString:
        return {"FillText(" + both + ");", "ReadText(" + both + ");"};
    case Kind::kBytes:
    case Kind::kArray64:
        return {"CopyArray(" + both + ");", "CopyArray(" + both + ");"};
    case Kind::kVector32:
        return {"FillVector(" + from + ", from." + count + ", " + to + ", " + to + "_count);",
                "ReadVector(" + from + ", " + from + "_count, " + to + ", to." + count + ");"};
    case Kind::kTableRun:
        return {"FillTables(" + from + ", std::size(" + from + "), " + to + ");", "ReadRun(" + both + ");"};
    case Kind::kTableVector:
        return {to + "_count = static_cast<pb_size_t>(from." + count + "); FillTables(" + from + ", from." + count +
                    ", " + to + ");",
                "ReadTables(" + from + ", " + from + "_count, " + to + ", to." + count + ");"};
    default:
        throw std::runtime_error("no measured type has had a byte vector so far: " + name);
    }
}

// What a peer calls the object of a type, for writing and for reading.
struct Objects {
    const char *before;
    const char *writer;
    const char *reader;
    const char *readerConst;
};

template <class CarrierOf>
void WriteCarriers(std::ostream &out, const Types &types, const Objects &objects, CarrierOf carrierOf) {
    for (const TypeInfo *type : types) {
        const std::string record = std::string("Tarn_sys_diag_") + type->name;
        const std::string object = std::string(objects.before) + type->name;
        std::string fill, read;
        EachSlot(*type, [&](const SlotShape &slot, const std::string &name, const std::string &count) {
            const Carrier carrier = carrierOf(slot, name, count);
            fill += "    " + carrier.fill + "\n";
            read += "    " + carrier.read + "\n";
        });
        out << "inline void Fill(const " << record << " &from, " << object << objects.writer << "to) {\n"
            << fill << "}\ninline void Read(" << objects.readerConst << object << objects.reader << "from, " << record
            << " &to) {\n"
            << read << "}\n";
    }
}

template <class Write>
void WriteFile(const std::filesystem::path &path, Write write) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path);
    write(out);
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

void WriteAll(const std::filesystem::path &folder) {
    const Types measured = MeasuredTypes(), all = AllTypes();
    WriteFile(folder / "bench.proto", [&](std::ostream &out) { WriteProto(out, measured); });
    WriteFile(folder / "bench.options",
              [&](std::ostream &out) { WriteNanopbOptions(out, measured, Sizes::kMeasured); });
    WriteFile(folder / "bench.capnp", [&](std::ostream &out) { WriteCapnp(out, measured); });
    WriteFile(folder / "all.proto", [&](std::ostream &out) { WriteProto(out, all); });
    WriteFile(folder / "all.options", [&](std::ostream &out) { WriteNanopbOptions(out, all, Sizes::kShort); });
    WriteFile(folder / "protobuf_carriers.h", [&](std::ostream &out) {
        WriteCarriers(out, measured, {"bench::", " &", " &", "const "}, ProtobufCarrier);
    });
    WriteFile(folder / "capnp_carriers.h", [&](std::ostream &out) {
        WriteCarriers(out, measured, {"", "::Builder ", "::Reader ", ""}, CapnpCarrier);
    });
    WriteFile(folder / "nanopb_carriers.h", [&](std::ostream &out) {
        WriteCarriers(out, measured, {"bench_", " &", " &", "const "}, NanopbCarrier);
    });
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " FOLDER\n";
        return 2;
    }
    try {
        WriteAll(argv[1]);
    } catch (const std::exception &error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return 1;
    }
}
