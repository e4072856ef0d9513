// What starting and ending a process costs by itself.
int main() { return 0; }
