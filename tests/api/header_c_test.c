/* A C host: the public header compiles as C, and the library links and answers from C. */
#include "deskline/deskline.h"

int main(void) {
  NetworkInitData data = {0};
  PtapParameterContainer params = {0};
  ModuleVariables vars = {0};
  (void)data;
  (void)params;
  (void)vars;
  if (sizeof(NetworkInitData) != (sizeof(void*) == 8 ? 152 : 132)) return 1;
  /* Before initialize every export answers for a missing object. */
  if (put_key(0x0200) != 0 || uninitialize() != 0 || open_voice() != 0) return 2;
  if (ToneModulePlayTone(1, 2, 3) != -1 || AudioModuleGetEngineStatus() != -1) return 3;
  return 0;
}
