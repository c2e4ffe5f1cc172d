#include "preview/masks.h"

#include <gtest/gtest.h>

TEST(Masks, HideWhatAFileHolds) {
  EXPECT_EQ(Masks::File("sasl_passwd", "relay:25 user:pass word\n"), "relay:25 ********\n");
  EXPECT_EQ(Masks::File("sasl_passwd.db", "relay:25\tuser:pass\n\tmore\n"), "relay:25 ********\n ********\n");
  EXPECT_EQ(Masks::File("ldap-aliases.cf", "a=b\n bind_pw\t = secret\n more\nbind_pwd=x\n"),
            "a=b\n bind_pw\t =********\nbind_pwd=x\n");
  EXPECT_EQ(Masks::File("main.cf", "bind_pw = shown\n"), "bind_pw = shown\n");
}

TEST(Masks, HideWhatProgramsRepeat) {
  Masks masks;
  masks.Learn("sasl_passwd.db", "relay:25\tuser:a b:c\xe9 secret \n");
  masks.Learn("domain-aliases.cf", "bind_pw=short\nbind_pw=longer\n");
  EXPECT_EQ(masks.Said("x a b:c\xe9 secret longer short"), "x ******** ******** short");
  EXPECT_EQ(masks.Said("sasl_passwd, line 1: \"user:a b"), "sasl_passwd, line 1: ********");
}
