#include "app/ostra_app.h"

int main(int argc, char* argv[]) {
  return appMain(argc, argv);
}
