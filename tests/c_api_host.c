/* A C host of the library, compiled as C99: proves the header is C-clean and drives the flat
 * entry points the way C programs do. Exit status 0 when every expectation holds. */
#include <stdio.h>
#include <string.h>

#include <usemeter/usemeter.h>

#define EXPECT(cond)                                                   \
    do {                                                               \
        if (!(cond)) {                                                 \
            fprintf(stderr, "c_api_host: %s failed (line %d)\n", #cond, __LINE__); \
            return 1;                                                  \
        }                                                              \
    } while (0)

static int null_handles(void)
{
    EXPECT(usemeter_should_ask_user_consent(NULL) == 0);
    usemeter_notify_feature_usage(NULL, "run.ignored");
    usemeter_set_statistic_collection_enabled(NULL, true);
    usemeter_destroy_statistic(NULL);
    return 0;
}

/* No decision on record: ask; after either answer: do not ask again. */
static int consent(void)
{
    statistic_handle_t* handle = usemeter_create_statistic("trovix", "2016");
    EXPECT(handle != NULL);
    EXPECT(usemeter_should_ask_user_consent(handle) == 1);
    usemeter_set_statistic_collection_enabled(handle, false);
    EXPECT(usemeter_should_ask_user_consent(handle) == 0);
    usemeter_set_statistic_collection_enabled(handle, true);
    EXPECT(usemeter_should_ask_user_consent(handle) == 0);
    usemeter_destroy_statistic(handle);
    return 0;
}

/* Two handles are two backends: destroying one leaves the other working. */
static int report(void)
{
    char name[32];
    statistic_handle_t* first = usemeter_create_statistic("trovix", "2016");
    statistic_handle_t* second = usemeter_create_statistic("c host", "1.0");
    strcpy(name, "run.first");
    usemeter_notify_feature_usage(first, name);
    memset(name, 'x', sizeof name - 1); /* the library keeps its own copy */
    usemeter_destroy_statistic(first);
    usemeter_notify_feature_usage(second, "run.second");
    usemeter_destroy_statistic(second);
    return 0;
}

int main(int argc, char** argv)
{
    if (null_handles() != 0)
        return 1;
    if (argc > 1 && strcmp(argv[1], "consent") == 0)
        return consent();
    if (argc > 1 && strcmp(argv[1], "report") == 0)
        return report();
    return 2;
}
