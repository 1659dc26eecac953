// Loaded by the library loader's tests; the value proves the right file was loaded.
extern "C" int veld_probe_answer()
{
    return 42;
}
