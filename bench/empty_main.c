/* An empty program: scripts/bench.sh links it like the import command (with
 * its library) and like the crypto baseline (with libcrypto alone), so that
 * what starting each process costs on this machine, before any work, can be
 * timed apart from the work. */
int main(void)
{
    return 0;
}
