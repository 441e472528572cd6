#include "app/CTavroTestApp.h"

int main() {
  CTavroTestApp app;
  app.InitInstance();
  // Every way of ending gives the same result: the user has already seen why.
  return 0;
}
