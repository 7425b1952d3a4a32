#include <gtest/gtest.h>

#include <filesystem>

#include "nt/registry_store.h"
#include "station_fixture.h"

namespace {

using tests::Attributes;

constexpr std::u16string_view kService = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\VrkFs";
constexpr std::u16string_view kParameters =
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\VrkFs\\Parameters";

std::string Bytes(std::u16string_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR)};
}

std::string Bytes(ULONG number) {
    return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

// ---- the file's form ----

TEST(RegistryStore, EveryValueSurvivesTheFile) {
    const struct {
        ULONG type;
        std::string data;
        const char* text;  // What a person sees.
    } cases[] = {
        {REG_DWORD, Bytes(4294967295u), R"("type": "REG_DWORD",
                "value": 4294967295)"},
        {REG_DWORD, "abc", R"("bytes": "616263")"},
        {REG_SZ, Bytes(std::u16string_view(u"P\0", 2)), R"("value": "P")"},
        {REG_SZ, Bytes(u"P"), R"("bytes": "5000")"},
        {REG_SZ, std::string("P\0\0", 3), R"("bytes": "500000")"},
        {REG_SZ, Bytes(std::u16string{0xD800, 0}), R"("bytes": "00d80000")"},
        {REG_EXPAND_SZ, Bytes(std::u16string_view(u"\u00E9\"\\\U0001F3AC\0", 6)), "\u00E9\\\"\\\\"},
        {REG_MULTI_SZ, Bytes(std::u16string_view(u"a\0bc\0\0", 6)), R"("type": "REG_MULTI_SZ")"},
        {REG_MULTI_SZ, Bytes(std::u16string_view(u"a\0", 2)), R"("bytes": "61000000")"},
        {REG_QWORD, std::string(8, '\xFF'), R"("value": 18446744073709551615)"},
        {REG_BINARY, std::string("\0\x01\xFF", 3), R"("bytes": "0001ff")"},
        {4711, "x", R"("type": 4711)"},
    };
    for (const auto& c : cases) {
        nt::RegistryTree tree;
        nt::AddRegistryKey(&tree, kParameters).values[u"NAME"] = {u"Name", c.type, c.data};
        const std::string text = nt::FormatRegistry(tree);
        EXPECT_NE(text.find(c.text), std::string::npos) << text;
        auto parsed = nt::ParseRegistry(text);
        ASSERT_TRUE(std::holds_alternative<nt::RegistryTree>(parsed)) << std::get<std::string>(parsed);
        const nt::RegistryKey& key = std::get<nt::RegistryTree>(parsed)[nt::Upcased(kParameters)];
        EXPECT_EQ(key.path, kParameters);
        ASSERT_EQ(key.values.count(u"NAME"), 1u) << text;
        EXPECT_EQ(key.values.at(u"NAME").type, c.type) << text;
        EXPECT_EQ(key.values.at(u"NAME").data, c.data) << text;
        EXPECT_EQ(std::get<nt::RegistryTree>(parsed).count(nt::Upcased(kService)), 1u);
    }
}

TEST(RegistryStore, BadFilesAreExplained) {
    const std::string key = R"({"format":1,"keys":{"\\Registry\\K":)";
    const struct {
        std::string text;
        const char* complaint;
    } cases[] = {
        {"", "parse error"},
        {"{\"format\":1}", "the file: wanted"},
        {R"({"format":2,"keys":{}})", "format 1"},
        {R"({"format":1,"keys":{"K":{}}})", "the path does not lead"},
        {R"({"format":1,"keys":{"\\Registry\\a\\\\b":{}}})", "the path does not lead"},
        {"{\"format\":1,\"keys\":{\"\\\\Registry\\\\\xFF\":{}}}", "parse error"},
        {key + R"({"V":{"type":"REG_DWORD","value":4,"bytes":""}}}})", "value \"V\": wanted"},
        {key + R"({"V":{"type":4294967296,"bytes":""}}}})", "\"type\""},
        {key + R"({"V":{"type":"REG_DWORD","value":4294967296}}}})", "from 0 to 4294967295"},
        {key + R"({"V":{"type":"REG_SZ","value":"a\u0000b"}}}})", "not a string"},
        {key + R"({"V":{"type":"REG_BINARY","bytes":"0g"}}}})", "hexadecimal"},
        {key + R"({"V":{"type":4,"bytes":""},"V":{"type":4,"bytes":""}}}})", "stands twice"},
        {key + R"({"V":{"type":4,"bytes":""}},"\\registry\\k":{}}})", "the key stands twice"},
        {key + std::string(100000, '[') + std::string(100000, ']') + "}}", "nested too deeply"},
        {std::string(17 << 20, ' '), "longer than 16 MiB"},
        {key + R"({"V":{"type":3,"bytes":")" + std::string((2 << 20) + 2, '0') + R"("}}}})", "longer than 1 MiB"},
        {key + "{\"" + std::string(16384, 'n') + R"(":{"type":3,"bytes":""}}}})", "name is too long"},
    };
    for (const auto& c : cases) {
        const auto parsed = nt::ParseRegistry(c.text);
        const std::string shown = c.text.substr(0, 120);
        ASSERT_TRUE(std::holds_alternative<std::string>(parsed)) << shown;
        EXPECT_NE(std::get<std::string>(parsed).find(c.complaint), std::string::npos) << shown << "\n"
                                                                                      << std::get<std::string>(parsed);
    }
}

// ---- the calls ----

class RegistryTest : public tests::StationTest {
  protected:
    void SetUp() override {
        StationTest::SetUp();
        ASSERT_EQ(nt::AttachStation(files_), "");
    }

    static HANDLE Open(std::u16string_view path, ACCESS_MASK access = KEY_ALL_ACCESS) {
        HANDLE key = nullptr;
        EXPECT_EQ(ZwOpenKey(&key, access, Attributes(path)), STATUS_SUCCESS) << nt::Utf8FromWide(path);
        return key;
    }

    static NTSTATUS Set(HANDLE key, std::u16string_view name, ULONG type, std::string data) {
        UNICODE_STRING valueName = nt::CountedString(name);
        return ZwSetValueKey(key, &valueName, 0, type, data.data(), static_cast<ULONG>(data.size()));
    }

    // The data of a value, through the partial information.
    static std::string Data(HANDLE key, std::u16string_view name) {
        UNICODE_STRING valueName = nt::CountedString(name);
        std::string buffer(512, '\0');
        ULONG needed = 0;
        const NTSTATUS status =
            ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer.data(), 512, &needed);
        return NT_SUCCESS(status) ? buffer.substr(12, needed - 12) : "status";
    }
};

TEST_F(RegistryTest, ValuesLiveOnTheDisk) {
    ASSERT_EQ(nt::CreateRegistryKey(kParameters), STATUS_SUCCESS);
    const HANDLE key = Open(kParameters);
    EXPECT_EQ(Set(key, u"BaseFrameNumber", REG_DWORD, Bytes(7u)), STATUS_SUCCESS);
    EXPECT_EQ(Set(key, u"DriveLetter0", REG_SZ, Bytes(std::u16string_view(u"R\0", 2))), STATUS_SUCCESS);
    EXPECT_EQ(Set(key, u"baseframenumber", REG_DWORD, Bytes(8u)), STATUS_SUCCESS);
    EXPECT_EQ(Data(key, u"BASEFRAMENUMBER"), Bytes(8u));
    ZwClose(key);

    EXPECT_NE(tests::ReadFile(files_.registry).find("\"BaseFrameNumber\""), std::string::npos);
    ASSERT_EQ(Reboot(), "");
    const HANDLE again = Open(u"\\REGISTRY\\machine\\SYSTEM\\CurrentControlSet\\services\\vrkfs\\parameters");
    EXPECT_EQ(Data(again, u"BaseFrameNumber"), Bytes(8u));
    EXPECT_EQ(Data(again, u"DriveLetter0"), Bytes(std::u16string_view(u"R\0", 2)));
    EXPECT_EQ(Data(again, u"Missing"), "status");
    ZwClose(again);
}

TEST_F(RegistryTest, AWriteThatCannotBeChangesNothing) {
    ASSERT_EQ(nt::CreateRegistryKey(kParameters), STATUS_SUCCESS);
    HANDLE key = Open(kParameters);
    ASSERT_EQ(Set(key, u"X", REG_DWORD, Bytes(1u)), STATUS_SUCCESS);
    const std::string before = tests::ReadFile(files_.registry);
    const auto expectRefused = [&](NTSTATUS status) {
        EXPECT_EQ(Set(key, u"X", REG_DWORD, Bytes(2u)), status);
        EXPECT_EQ(Set(key, u"Y", REG_DWORD, Bytes(2u)), status);
        EXPECT_EQ(Data(key, u"X"), Bytes(1u));
        EXPECT_EQ(Data(key, u"Y"), "status");
        EXPECT_EQ(nt::CreateRegistryKey(u"\\Registry\\New"), status);
        HANDLE made = nullptr;
        EXPECT_EQ(ZwOpenKey(&made, KEY_READ, Attributes(u"\\Registry\\New")), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(tests::ReadFile(files_.registry), before);
    };
    // A directory where the new contents would be written aside.
    std::filesystem::create_directory(files_.registry + ".new");
    expectRefused(STATUS_REGISTRY_IO_FAILED);
    std::filesystem::remove(files_.registry + ".new");
    // What a crash left aside is not followed nor kept.
    tests::WriteFile(directory_ / "victim", "safe");
    std::filesystem::create_symlink(directory_ / "victim", files_.registry + ".new");
    EXPECT_EQ(Set(key, u"Z", REG_DWORD, Bytes(3u)), STATUS_SUCCESS);
    EXPECT_EQ(tests::ReadFile(directory_ / "victim"), "safe");
    EXPECT_FALSE(std::filesystem::exists(files_.registry + ".new"));
    ZwClose(key);
    tests::WriteFile(files_.registry, before);
    files_.readOnly = true;
    ASSERT_EQ(Reboot(), "");
    key = Open(kParameters);
    expectRefused(STATUS_MEDIA_WRITE_PROTECTED);
    ZwClose(key);
}

TEST_F(RegistryTest, ABadFileIsRefusedAtBoot) {
    tests::WriteFile(files_.registry, "{\"format\":1,\"keys\":{\"\\\\Registry\\\\K\":{\"V\":4}}}");
    const std::string wrong = Reboot();
    EXPECT_NE(wrong.find(files_.registry), std::string::npos);
    EXPECT_NE(wrong.find("value \"V\""), std::string::npos);
    std::filesystem::remove(files_.registry);
    std::filesystem::create_directory(files_.registry);
    EXPECT_NE(Reboot().find("is not a file"), std::string::npos);
}

}  // namespace
