/* A game loop that freezes for twelve seconds, two seconds after its start. */
#include <SDL2/SDL.h>
#include <quorvix.h>

int main(int count, char** arguments) {
    (void)count, (void)arguments;
    quorvix_start(NULL);
    struct quorvix_watch* watch = quorvix_watch_open("frame", QUORVIX_WATCH_SAVE_REPORT);
    if (SDL_Init(SDL_INIT_VIDEO) != 0 || !SDL_CreateWindow("game", 0, 0, 320, 240, 0)) return 1;
    for (int frame = 0;; ++frame) {
        quorvix_begin(watch);
        for (SDL_Event event; SDL_PollEvent(&event);)
            if (event.type == SDL_QUIT) return 0;
        if (frame == 120) SDL_Delay(12000);
        quorvix_end(watch);
        SDL_Delay(16);
    }
}
