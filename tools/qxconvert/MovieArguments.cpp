#include <cstdio>
#include <string>

#include "Commands.h"
#include "Report.h"
#include "qxmedia/source/QXMovie.h"

std::unique_ptr<MovieArguments> parseMovieArguments(const Arguments& arguments, const char* command)
{
    auto parsed = std::make_unique<MovieArguments>();
    for (const std::string& argument : arguments) {
        if (argument == "--json") {
            parsed->asJson = true;
        } else {
            parsed->urls.emplace_back(argument);
        }
    }
    if (parsed->urls.empty()) {
        std::fprintf(stderr, "usage: qxconvert %s FILE... [--json]\n", command);
        return nullptr;
    }
    return parsed;
}

std::shared_ptr<QXMovie> openMovie(const std::vector<QXURL>& urls, const QXURL& shownAs)
{
    QXErrorRef error;
    auto movie = QXMovie::initWithURLs(urls, &error);
    if (!movie) report::failure("cannot open", shownAs.empty() ? urls.front() : shownAs, error);
    return movie;
}
