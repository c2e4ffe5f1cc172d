#include "preview/masks.h"

#include <gtest/gtest.h>

TEST(Masks, HideWhatAFileHolds) {
  const struct {
    const char* file;
    const char* text;
    const char* shown;
  } kCases[] = {
      {"sasl_passwd", "relay:25 user:pass word\nx\n\n", "relay:25 ********\nx\n\n"},
      {"sasl_passwd.db", "relay:25\tuser:pass\n\tmore\n", "relay:25\t********\n\t********\n"},
      {"ldap-aliases.cf", "a=b\n bind_pw\t = secret\n more\nbind_pwd=x",
       "a=b\n bind_pw\t =********\nbind_pwd=x"},
      {"main.cf", "ldap_bind_pw =\n# comment\n\n  secret\n# static:u:p\nb = c\n",
       "ldap_bind_pw =********\n# static:********\nb = c\n"},
      {"main.cf", "lmtp_sasl_password_maps = inline:{ {h = u:p} }, static:x\n",
       "lmtp_sasl_password_maps = inline:********\n"},
      {"main.cf", "p = static:{u:a b}\nq = check_client_access static:OK, reject\n",
       "p = static:********\nq = check_client_access static:OK, reject\n"},
      {"master.cf", "smtp unix - - n - - smtp\n  -o my_password=x y\n# end",
       "smtp unix - - n - - smtp\n  -o my_password=********\n# end"},
      {"aliases", "password = shown\n", "password = shown\n"},
  };
  for (const auto& row : kCases) EXPECT_EQ(Masks::MaskFile(row.file, row.text), row.shown);
}

TEST(Masks, HideWhatProgramsRepeat) {
  Masks masks;
  masks.Learn("sasl_passwd.db", "relay:25\tuser:a b:c\xe9 secret \n");
  masks.Learn("domain-aliases.cf", "bind_pw=short\nbind_pw=longer\n");
  masks.Learn("main.cf", "smtp_sasl_password_maps = inline:{ {relay.example = user:in line} }\n");
  EXPECT_EQ(masks.MaskLine("x a b:c\xe9 secret longer short"), "x ******** ******** short");
  EXPECT_EQ(masks.MaskLine("sasl_passwd, line 1: \"user:a b"), "sasl_passwd, line 1: ********");
  EXPECT_EQ(masks.MaskLine("relay.example user:in line in line my_bind_pw=x"),
            "relay.example user:******** ******** my_bind_pw=********");
}
