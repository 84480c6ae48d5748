// The records with which the services are registered, as the runtime reads them.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/codec/record.h"
#include "tests/library/methods.h"

extern "C" {
extern const IdlModuleSpec __module_spec_TarnSysdiagTarnd, __module_spec_TarnSysdiagTarndAgent;
extern const IdlInterfaceEntry intf_tbl_TarnSysdiagTarnd[], intf_tbl_TarnSysdiagTarndAgent[];
extern const IdlMessageEntry msgdesc_tbl_TarnSysdiagTarnd[], msgdesc_tbl_TarnSysdiagTarndAgent[];
extern IdlServerAddr g_stServerAddr_TarnSysdiagAgent, g_stServerAddr_TarnSysdiagMaster;
}

namespace {
struct Service {
    const char *name;
    const IdlModuleSpec &spec;
    const IdlInterfaceEntry *interfaces;
    const IdlMessageEntry *messages;
};

const Service kServices[] = {
    {"TarnSysdiagTarnd", __module_spec_TarnSysdiagTarnd, intf_tbl_TarnSysdiagTarnd, msgdesc_tbl_TarnSysdiagTarnd},
    {"TarnSysdiagTarndAgent", __module_spec_TarnSysdiagTarndAgent, intf_tbl_TarnSysdiagTarndAgent,
     msgdesc_tbl_TarnSysdiagTarndAgent},
};

std::vector<const ServedMethod *> MethodsOf(const Service &service) {
    std::vector<const ServedMethod *> methods;
    for (const ServedMethod &method : ServedMethods()) {
        if (method.service == service.name) {
            methods.push_back(&method);
        }
    }
    return methods;
}

// Entries of its tables, the reserved first ones included.
size_t InterfaceNum(const Service &service) {
    return 1 + MethodsOf(service).size();
}
size_t MessageNum(const Service &service) {
    size_t num = 1;
    for (const ServedMethod *const method : MethodsOf(service)) {
        num += method->Replies() ? 2 : 1;
    }
    return num;
}

// A name and nothing but zeros behind it.
template <size_t kSize>
void ExpectPadded(const char (&field)[kSize], const std::string &name) {
    std::string padded = name;
    padded.resize(kSize, '\0');
    EXPECT_EQ(std::string(field, kSize), padded);
    EXPECT_LT(name.size(), kSize) << "the name is terminated";
}

std::vector<uint32_t> HashesOf(const Service &service) {
    std::vector<uint32_t> hashes;
    for (size_t i = 0; i < MessageNum(service); ++i) {
        hashes.push_back(service.messages[i].uiTypeHash);
    }
    return hashes;
}
} // namespace

TEST(ModuleSpec, NamesTheServiceItsTablesAndTheirSizes) {
    for (const Service &service : kServices) {
        ExpectPadded(service.spec.acService, service.name);
        EXPECT_EQ(service.spec.uiInterfaceNum, InterfaceNum(service));
        EXPECT_EQ(service.spec.uiMessageNum, MessageNum(service));
        EXPECT_EQ(service.spec.pstInterfaces, service.interfaces);
        EXPECT_EQ(service.spec.pstMessages, service.messages);
    }
}

TEST(ModuleSpec, EndsWithNineZeroWords) {
    for (const Service &service : kServices) {
        EXPECT_EQ(sizeof service.spec.auiReserved, 36U);
        for (const uint32_t word : service.spec.auiReserved) {
            EXPECT_EQ(word, 0U);
        }
    }
}

TEST(InterfaceTable, HasAReservedFirstEntry) {
    for (const Service &service : kServices) {
        const IdlInterfaceEntry &entry = service.interfaces[0];
        EXPECT_EQ(entry.uiReservedFlag, 0xFFFFFFFFU);
        EXPECT_EQ(entry.pfnWrapper, nullptr);
        EXPECT_EQ(entry.uiRequestHash, 0U);
        EXPECT_EQ(entry.uiReserved, 0U);
        ExpectPadded(entry.acMethod, "");
    }
}

TEST(InterfaceTable, HasOneEntryForEachMethodAtItsIndex) {
    for (const Service &service : kServices) {
        const auto methods = MethodsOf(service);
        for (const ServedMethod *const method : methods) {
            const IdlInterfaceEntry &entry = service.interfaces[method->index];
            EXPECT_EQ(entry.uiReservedFlag, 0U);
            EXPECT_EQ(entry.pfnWrapper, method->wrapper) << method->name;
            EXPECT_EQ(entry.uiRequestHash, FindType(method->request).hash) << method->name;
            EXPECT_EQ(entry.uiReserved, 0U);
            ExpectPadded(entry.acMethod, method->name);
        }
    }
}

TEST(InterfaceTable, HasTheMethodsAtTheIndicesThatPeersUse) {
    for (const auto &[index, name] :
         {std::pair(1, "PidIsOnline"), std::pair(19, "GetExceptionInfo"), std::pair(38, "GetKpiMemoryInfo"),
          std::pair(41, "SetTimezone"), std::pair(45, "SetDateFormat"), std::pair(50, "DBGCmdExecShowByTarnd"),
          std::pair(55, "GetTaskInfo"), std::pair(63, "DetectTarndServerOnline"), std::pair(64, "TarnSetDimOpration"),
          std::pair(75, "UpdateMsgCtrlRuleTarnd"), std::pair(79, "TarnGetTimerInfoTarnd")}) {
        EXPECT_STREQ(intf_tbl_TarnSysdiagTarnd[index].acMethod, name);
    }
    EXPECT_STREQ(intf_tbl_TarnSysdiagTarndAgent[1].acMethod, "AgentRegInfo");
    EXPECT_STREQ(intf_tbl_TarnSysdiagTarndAgent[2].acMethod, "TarnAppSubscribe");
}

TEST(MessageTable, HasAZeroFirstEntryAndZeroReservedWords) {
    for (const Service &service : kServices) {
        EXPECT_EQ(service.messages[0].uiTypeHash, 0U);
        for (size_t i = 0; i < MessageNum(service); ++i) {
            for (const uint32_t word : service.messages[i].auiReserved) {
                EXPECT_EQ(word, 0U);
            }
        }
    }
}

TEST(MessageTable, HasEachMethodsRequestAndResponseInOrder) {
    for (const Service &service : kServices) {
        std::vector<uint32_t> expected = {0};
        for (const ServedMethod *const method : MethodsOf(service)) {
            expected.push_back(FindType(method->request).hash);
            if (method->Replies()) {
                expected.push_back(FindType(method->response).hash);
            }
        }
        EXPECT_EQ(HashesOf(service), expected);
    }
}

TEST(MessageTable, OfTheAgentServiceHasTheKnownHashes) {
    EXPECT_EQ(HashesOf(kServices[1]), (std::vector<uint32_t>{0, 0xAC85A4AF, 0x690940A8, 0x9E88ED43, 0x10D68351}));
}

TEST(MessageTable, ListsATypeOnceForEachUse) {
    const Service &service = kServices[0];
    const std::vector<uint32_t> hashes = HashesOf(service);
    for (const std::string type : {"None", "Result", "OsProcessCpuInput"}) {
        ptrdiff_t uses = 0;
        for (const ServedMethod *const method : MethodsOf(service)) {
            uses += (method->request == type ? 1 : 0) + (method->response == type ? 1 : 0);
        }
        EXPECT_GE(uses, 2) << type;
        EXPECT_EQ(std::count(hashes.begin(), hashes.end(), FindType(type).hash), uses) << type;
    }
}

TEST(ServerAddress, IsZeroButForTheNameAtLoad) {
    for (const auto &[address, name] : {std::pair(&g_stServerAddr_TarnSysdiagAgent, "TarnSysdiagAgent"),
                                        std::pair(&g_stServerAddr_TarnSysdiagMaster, "TarnSysdiagMaster")}) {
        for (const uint32_t word : address->auiRuntime) {
            EXPECT_EQ(word, 0U);
        }
        EXPECT_STREQ(address->pcService, name);
    }
}

TEST(ServerAddress, HasWordsThatTheRuntimeMayWrite) {
    for (IdlServerAddr *const address : {&g_stServerAddr_TarnSysdiagAgent, &g_stServerAddr_TarnSysdiagMaster}) {
        volatile uint32_t &word = address->auiRuntime[12];
        word = 1;
        EXPECT_EQ(word, 1U);
        word = 0;
    }
}
