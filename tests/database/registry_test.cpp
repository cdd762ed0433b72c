#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "database/dbc.h"
#include "database/registry.h"
#include "database/sha256.h"
#include "vxtest.h"

namespace {

const char kSmallDbc[] =
    "BO_ 291 Engine: 8 ECU\n"
    " SG_ Rpm : 0|16@1+ (0.25,0) [0|16383] \"rpm\" GW\n"
    " SG_ Temp : 23|8@0- (1,-40) [-40|215] \"degC\" GW\n"
    "\n"
    "BO_ 2147484160 FdFrame: 16 ECU\n"
    " SG_ Word : 0|16@1+ (1,0) [0|0] \"\" GW\n"
    "\n"
    "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n";

// A private state directory for the registry of this process.
class Registry : public testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/vxreg-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    root_ = templ;
    const char* old = getenv("XDG_STATE_HOME");
    had_old_ = old != nullptr;
    if (old) old_ = old;
    setenv("XDG_STATE_HOME", root_.c_str(), 1);
    unsetenv("VXCLI_STATE_DIR");
  }
  void TearDown() override {
    if (had_old_) setenv("XDG_STATE_HOME", old_.c_str(), 1);
    else unsetenv("XDG_STATE_HOME");
    std::filesystem::remove_all(root_);
  }
  std::string write(const std::string& name, const std::string& content) {
    std::string path = root_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string registry_file() { return root_ + "/vxcli/databases.json"; }
  std::string registry_text() { return vxtest::read_file(registry_file()); }

  std::string root_, old_;
  bool had_old_ = false;
};

TEST(RegistryNames, TypeInferenceAndDefaultNames) {
  EXPECT_EQ(vxcli_database_extension_type("/x/car.DBC"), "dbc");
  EXPECT_EQ(vxcli_database_extension_type("bus.ldf"), "ldf");
  EXPECT_EQ(vxcli_database_extension_type("ecu.a2l"), "a2l");
  EXPECT_EQ(vxcli_database_extension_type("profile.yml"), "mapping");
  EXPECT_EQ(vxcli_database_extension_type("map.JSON"), "mapping");
  EXPECT_EQ(vxcli_database_extension_type("dir.v2/file"), "");
  EXPECT_EQ(vxcli_database_extension_type("notes.txt"), "");
  EXPECT_EQ(vxcli_database_default_name("/tmp/my net (v2).dbc"), "my_net__v2_");
  EXPECT_EQ(vxcli_database_default_name("C:\\db\\a.b.c.dbc"), "a.b.c");
  EXPECT_EQ(vxcli_database_default_name("/x/.dbc"), "database");
  EXPECT_EQ(vxcli_database_default_name("caf\xC3\xA9.dbc"), "caf__");
}

TEST(RegistryHash, Sha256OfFiles) {
  char dir[] = "/tmp/vxsha-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string path = std::string(dir) + "/abc";
  std::ofstream(path) << "abc";
  char hex[65], error[256];
  ASSERT_EQ(vxcli_sha256_file(path.c_str(), hex, sizeof hex, error, sizeof error), 0);
  EXPECT_STREQ(hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  std::ofstream(path, std::ios::trunc).flush();
  ASSERT_EQ(vxcli_sha256_file(path.c_str(), hex, sizeof hex, error, sizeof error), 0);
  EXPECT_STREQ(hex, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(vxcli_sha256_file((path + "x").c_str(), hex, sizeof hex, error, sizeof error), -1);
  EXPECT_NE(strstr(error, "cannot open"), nullptr);
  std::filesystem::remove_all(dir);
}

TEST_F(Registry, LoadRefreshAndRenameRules) {
  std::string a = write("a.dbc", kSmallDbc);
  std::string b = write("sub/b.dbc", kSmallDbc);
  VXCLI_DatabaseResourceInfo info;
  int created = -1;
  char error[256];
  ASSERT_EQ(vxcli_database_resource_load(a.c_str(), nullptr, nullptr, &info, &created, error,
                                         sizeof error), 0) << error;
  EXPECT_EQ(created, 1);
  EXPECT_STREQ(info.name, "a");
  EXPECT_STREQ(info.type, "dbc");
  EXPECT_EQ(info.path, std::filesystem::canonical(a).string());
  EXPECT_EQ(info.items, 2);
  EXPECT_EQ(info.members, 3);
  EXPECT_EQ(strlen(info.source_hash), 64u);
  EXPECT_GT(info.loaded_at, 1600000000);

  // Same file again: refreshed in place. Same file under another name: the
  // existing entry is refreshed and keeps its name.
  ASSERT_EQ(vxcli_database_resource_load(a.c_str(), "a", nullptr, &info, &created, error,
                                         sizeof error), 0);
  EXPECT_EQ(created, 0);
  ASSERT_EQ(vxcli_database_resource_load(a.c_str(), "other", nullptr, &info, &created, error,
                                         sizeof error), 0);
  EXPECT_EQ(created, 0);
  EXPECT_STREQ(info.name, "a");

  // The name of a resource cannot be taken by another file.
  EXPECT_NE(vxcli_database_resource_load(b.c_str(), "a", nullptr, &info, &created, error,
                                         sizeof error), 0);
  EXPECT_STREQ(error, "database name already refers to another resource");
  DatabaseLoadResult result;
  EXPECT_NE(vxcli_database_load_resource(std::filesystem::canonical(b).c_str(), "a", "dbc", result,
                                         error, sizeof error), 0);
  EXPECT_STREQ(error, "database name 'a' already refers to another resource");

  ASSERT_EQ(vxcli_database_resource_load(b.c_str(), nullptr, nullptr, &info, &created, error,
                                         sizeof error), 0);
  EXPECT_EQ(created, 1);
  VXCLI_DatabaseResourceInfo list[2];
  size_t count = 0;
  ASSERT_EQ(vxcli_database_resource_list(list, 2, &count, error, sizeof error), 0);
  ASSERT_EQ(count, 2u);
  EXPECT_STREQ(list[0].name, "a");
  EXPECT_STREQ(list[1].name, "b");
  EXPECT_EQ(list[1].items, -1);
  EXPECT_EQ(vxcli_database_resource_list(list, 1, &count, error, sizeof error), -1);
  EXPECT_STREQ(error, "database list capacity is too small");
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(vxcli_database_resource_list(nullptr, 1, &count, error, sizeof error), -1);
  EXPECT_STREQ(error, "invalid database list buffer");

  // The file on disk, exactly as laid out.
  std::string expected = "{\n  \"version\": 1,\n  \"resources\": [";
  for (int i = 0; i < 2; i++)
    expected += std::string(i ? "," : "") + "\n    {\"name\":\"" + list[i].name +
                "\",\"type\":\"dbc\",\"path\":\"" + list[i].path + "\",\"source_hash\":\"" +
                list[i].source_hash + "\",\"loaded_at\":" + std::to_string(list[i].loaded_at) +
                "}";
  expected += "\n  ]\n}\n";
  EXPECT_EQ(registry_text(), expected);

  ASSERT_EQ(vxcli_database_resource_info("b", &info, error, sizeof error), 0);
  EXPECT_EQ(info.items, 2);
  EXPECT_EQ(vxcli_database_resource_unload("a", error, sizeof error), 0);
  EXPECT_EQ(vxcli_database_resource_unload("a", error, sizeof error), -1);
  EXPECT_STREQ(error, "database resource was not found");
  EXPECT_EQ(vxcli_database_resource_unload("", error, sizeof error), -1);
  EXPECT_STREQ(error, "database resource name is required");
  EXPECT_EQ(vxcli_database_resource_unload("b", error, sizeof error), 0);
  EXPECT_EQ(registry_text(), "{\n  \"version\": 1,\n  \"resources\": []\n}\n");
}

TEST_F(Registry, LoadRejections) {
  std::string text = write("notes.txt", kSmallDbc);
  std::string empty = write("empty.dbc", "VERSION \"\"\n");
  std::string mapping = write("profile.yaml", "deviceResources: []\n");
  VXCLI_DatabaseResourceInfo info;
  int created;
  char error[256];
  auto load = [&](const char* file, const char* name, const char* type) {
    return vxcli_database_resource_load(file, name, type, &info, &created, error, sizeof error);
  };
  EXPECT_EQ(load("", nullptr, nullptr), -1);
  EXPECT_STREQ(error, "database file is required");
  EXPECT_EQ(load((root_ + "/missing.dbc").c_str(), nullptr, nullptr), -1);
  EXPECT_STREQ(error, "database file was not found");
  EXPECT_EQ(load(root_.c_str(), nullptr, nullptr), -1);  // a directory is not a file
  EXPECT_STREQ(error, "database file was not found");
  EXPECT_EQ(load(text.c_str(), nullptr, nullptr), -1);
  EXPECT_STREQ(error, "cannot infer database type");
  EXPECT_EQ(load(text.c_str(), std::string(128, 'n').c_str(), "dbc"), -1);
  EXPECT_STREQ(error, "database resource name is too long");
  EXPECT_EQ(load(empty.c_str(), nullptr, nullptr), -1);
  EXPECT_STREQ(error, "invalid dbc database: DBC file defines no messages");
  EXPECT_EQ(load(mapping.c_str(), nullptr, nullptr), -1);
  EXPECT_STREQ(error, "invalid mapping database: database type is recognized but not implemented");
  EXPECT_EQ(load(mapping.c_str(), nullptr, "MODBUS-EDGEX"), -1);
  EXPECT_STREQ(error,
               "invalid modbus-edgex database: database type is recognized but not implemented");
  // With --type the extension does not matter.
  EXPECT_EQ(load(text.c_str(), nullptr, "dbc"), 0) << error;
  EXPECT_STREQ(info.name, "notes");
}

TEST_F(Registry, ResolveSelectors) {
  std::string a = write("a.dbc", kSmallDbc);
  std::string b = write("b.dbc", kSmallDbc);
  std::string loose = write("loose.dbc", kSmallDbc);
  std::string ca = std::filesystem::canonical(a), cb = std::filesystem::canonical(b);
  write("vxcli/databases.json",
        "{\"version\":1,\"resources\":[{\"name\":\"a\",\"type\":\"dbc\",\"path\":\"" + ca +
            "\"},{\"name\":\"bus\",\"type\":\"ldf\",\"path\":\"/x/bus.ldf\",\"loaded_at\":5,"
            "\"source_hash\":\"" + std::string(80, 'f') + "\"}]}");
  char path[4096], name[128], error[256];
  auto resolve = [&](const char* selector, const char* type) {
    return vxcli_database_resolve(selector, type, path, sizeof path, name, sizeof name, error,
                                  sizeof error);
  };
  ASSERT_EQ(resolve("a", "dbc"), 0) << error;
  EXPECT_EQ(path, ca);
  EXPECT_STREQ(name, "a");
  EXPECT_EQ(resolve("bus", "dbc"), -1);
  EXPECT_STREQ(error, "database resource has the wrong type");
  EXPECT_EQ(resolve("bus", nullptr), 0);
  ASSERT_EQ(resolve(loose.c_str(), "dbc"), 0);  // an unregistered file
  EXPECT_EQ(path, std::filesystem::canonical(loose).string());
  EXPECT_STREQ(name, "loose");
  EXPECT_EQ(resolve(loose.c_str(), "ldf"), -1);
  EXPECT_STREQ(error, "database resource or file was not found");
  EXPECT_EQ(resolve("vehicle", "dbc"), -1);
  EXPECT_STREQ(error, "database resource or file was not found");
  ASSERT_EQ(resolve("", "dbc"), 0);  // the sole DBC
  EXPECT_STREQ(name, "a");
  EXPECT_EQ(resolve("", nullptr), -1);
  EXPECT_STREQ(error, "multiple database resources match; use --database=<name>");
  EXPECT_EQ(resolve("", "a2l"), -1);
  EXPECT_STREQ(error, "no matching database resource is loaded");

  std::vector<DatabaseResource> resources;
  ASSERT_EQ(vxcli_database_registry_read(resources, error, sizeof error), 0);
  ASSERT_EQ(resources.size(), 2u);
  EXPECT_EQ(resources[0].loaded_at, 0);
  EXPECT_EQ(resources[1].loaded_at, 5);
  EXPECT_EQ(resources[1].source_hash, std::string(64, 'f'));

  VXCLI_DatabaseResourceInfo info;
  int created;
  ASSERT_EQ(vxcli_database_resource_load(b.c_str(), nullptr, nullptr, &info, &created, error,
                                         sizeof error), 0);
  EXPECT_EQ(resolve("", "dbc"), -1);
  EXPECT_STREQ(error, "multiple database resources match; use --database=<name>");
}

TEST_F(Registry, BrokenRegistriesBlockAndAreNeverRewritten) {
  std::string a = write("a.dbc", kSmallDbc);
  const std::pair<const char*, const char*> cases[] = {
      {"{}", "database registry has no resources array"},
      {"{\"resources\":{}}", "database registry has no resources array"},
      {"[]", "database registry has no resources array"},
      {"{\"resources\":[", "database registry is invalid JSON"},
      {"not json", "database registry is invalid JSON"},
      {"", "database registry is invalid JSON"},
      {"{\"resources\":[{\"name\":\"x\",\"type\":\"dbc\"}]}",
       "database registry contains an invalid resource"},
      {"{\"resources\":[{\"name\":1,\"type\":\"dbc\",\"path\":\"/p\"}]}",
       "database registry contains an invalid resource"},
      {"{\"resources\":[\"x\"]}", "database registry contains an invalid resource"},
  };
  for (const auto& [content, message] : cases) {
    SCOPED_TRACE(content);
    write("vxcli/databases.json", content);
    char path[4096], name[128], error[256];
    EXPECT_EQ(vxcli_database_resolve("", "dbc", path, sizeof path, name, sizeof name, error,
                                     sizeof error), -1);
    EXPECT_STREQ(error, message);
    VXCLI_DatabaseResourceInfo info;
    int created;
    EXPECT_EQ(vxcli_database_resource_load(a.c_str(), nullptr, nullptr, &info, &created, error,
                                           sizeof error), -1);
    EXPECT_STREQ(error, message);
    EXPECT_EQ(registry_text(), content);
  }
}

TEST_F(Registry, FailedSaveKeepsThePreviousFile) {
  std::string a = write("a.dbc", kSmallDbc);
  std::string b = write("b.dbc", kSmallDbc);
  VXCLI_DatabaseResourceInfo info;
  int created;
  char error[256];
  ASSERT_EQ(vxcli_database_resource_load(a.c_str(), nullptr, nullptr, &info, &created, error,
                                         sizeof error), 0);
  std::string before = registry_text();
  // A directory in the temporary file's place makes the write fail.
  std::filesystem::create_directory(registry_file() + ".tmp");
  EXPECT_EQ(vxcli_database_resource_load(b.c_str(), nullptr, nullptr, &info, &created, error,
                                         sizeof error), -1);
  EXPECT_STREQ(error, "cannot create database registry");
  EXPECT_EQ(registry_text(), before);
  std::filesystem::remove(registry_file() + ".tmp");
  ASSERT_EQ(vxcli_database_resource_load(b.c_str(), nullptr, nullptr, &info, &created, error,
                                         sizeof error), 0);
  EXPECT_FALSE(std::filesystem::exists(registry_file() + ".tmp"));
  struct stat st {};
  ASSERT_EQ(stat((root_ + "/vxcli").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(Registry, LibraryEncodeAndDecodeFollowTheRegistry) {
  std::string a = write("a.dbc", kSmallDbc);
  VXCLI_DatabaseResourceInfo info;
  int created;
  char error[256];
  ASSERT_EQ(vxcli_database_resource_load(a.c_str(), "car", nullptr, &info, &created, error,
                                         sizeof error), 0);
  const char* names[] = {"Rpm", "Temp", "Unknown"};
  const double values[] = {1000.1, -41, 5};
  uint8_t data[64];
  uint32_t length = 0, id = 0, flags = 0;
  ASSERT_EQ(vxcli_dbc_encode_to_buf("Engine", "car", 3, names, values, data, &length, &id, &flags),
            0);
  EXPECT_EQ(length, 8u);
  EXPECT_EQ(id, 0x123u);
  EXPECT_EQ(flags, 0u);
  EXPECT_EQ(data[0], 0xA0);  // 4000 = 0x0FA0
  EXPECT_EQ(data[1], 0x0F);
  EXPECT_EQ(data[2], 0xFF);  // -1 raw in the motorola byte
  ASSERT_EQ(vxcli_dbc_encode_to_buf("0x200", "", 0, nullptr, nullptr, data, &length, &id, &flags),
            0);
  EXPECT_EQ(length, 16u);
  EXPECT_EQ(flags, VXCLI_DBC_FLAG_EXTENDED | VXCLI_DBC_FLAG_FD | VXCLI_DBC_FLAG_BRS);
  EXPECT_EQ(vxcli_dbc_encode_to_buf("Nope", "car", 0, nullptr, nullptr, data, &length, &id,
                                    &flags), -2);
  EXPECT_EQ(id, 0xFFFFFFFFu);
  EXPECT_EQ(vxcli_dbc_encode_to_buf("Engine", "nosuch", 0, nullptr, nullptr, data, &length, &id,
                                    &flags), -1);

  char out[4096];
  ASSERT_EQ(vxcli_dbc_encode_to_json("Engine", "car", 2, names, values, out, sizeof out), 0);
  EXPECT_STREQ(out,
               "{\"message\":\"Engine\",\"id\":\"0x123\",\"dlc\":8,\"extended\":false,"
               "\"fd\":false,\"brs\":false,\"data\":\"A00FFF0000000000\"}");
  EXPECT_EQ(vxcli_dbc_encode_to_json("Engine", "car", 2, names, values, out, 20), -3);
  const uint8_t payload[] = {0xA0, 0x0F, 0x50};
  ASSERT_EQ(vxcli_dbc_decode_to_json("Engine", "car", payload, 3, out, sizeof out), 0);
  EXPECT_STREQ(out,
               "{\"message\":\"Engine\",\"id\":\"0x123\",\"extended\":false,\"fd\":false,"
               "\"brs\":false,\"signals\":{\"Rpm\":{\"raw\":4000,\"physical\":1000,\"unit\":"
               "\"rpm\"},\"Temp\":{\"raw\":80,\"physical\":40,\"unit\":\"degC\"}}}");

  // Re-registering the name for another file takes effect at once.
  std::string b = write("b.dbc", std::string(kSmallDbc).replace(8, 6, "Motor1"));
  ASSERT_EQ(vxcli_database_resource_unload("car", error, sizeof error), 0);
  ASSERT_EQ(vxcli_database_resource_load(b.c_str(), "car", nullptr, &info, &created, error,
                                         sizeof error), 0);
  ASSERT_EQ(vxcli_dbc_decode_to_json("0x123", "car", payload, 3, out, sizeof out), 0);
  EXPECT_NE(strstr(out, "\"message\":\"Motor1\""), nullptr) << out;
}

// The ninth distinct file of one process is refused; run in a fresh process
// so that files parsed by other tests do not count.
TEST_F(Registry, NinthDistinctDbcIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::vector<std::string> files;
  for (int i = 0; i < 9; i++) files.push_back(write("f" + std::to_string(i) + ".dbc", kSmallDbc));
  EXPECT_EXIT(
      {
        char out[1024];
        const uint8_t data[8] = {};
        for (int i = 0; i < 8; i++)
          if (vxcli_dbc_decode_to_json("Engine", files[size_t(i)].c_str(), data, 8, out,
                                       sizeof out) != 0)
            _exit(2);
        // Files already parsed stay available.
        if (vxcli_dbc_decode_to_json("Engine", files[0].c_str(), data, 8, out, sizeof out) != 0)
          _exit(3);
        char error[256];
        if (vxcli_dbc_resolve(files[8].c_str(), error, sizeof error) != nullptr) _exit(4);
        std::string expected = "failed to parse DBC resource '" +
                               std::filesystem::canonical(files[8]).string() + "'";
        _exit(expected == error ? 0 : 5);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
