// The process of an account whose documents live in a bucket of an S3 store.

#include "extensions/account/AccountProgram.h"
#include "extensions/s3/S3Remote.h"

int main(int argc, char** argv) {
  return account::runProgram(argc, argv, [](const account::Settings& setting) {
    return docsource::s3::makeS3Remote(setting);
  });
}
