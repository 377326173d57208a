-- Makes a page of a Markdown file of the repository: its first heading becomes the title, links to
-- other Markdown files lead to their pages. Fails for a link that leads to no file or no heading, and
-- for one to a file, or a picture, that is not handed on with the pages.

local function read(path)
    local file = io.open(path)
    if not file then
        error(PANDOC_STATE.input_files[1] .. ": there is no " .. path)
    end
    local text = file:read("a")
    file:close()
    return text
end

local function has_heading(document, id)
    local found = false
    document:walk {Header = function(header) found = found or header.identifier == id end}
    return found
end

local source = PANDOC_STATE.input_files[1]
local folder = source:match("^(.*/)") or ""

-- The path of a link, seen from the top of the repository.
local function resolve(path)
    local whole = folder .. path
    local count
    repeat
        whole, count = whole:gsub("[^/]+/%.%./", "", 1)
    until count == 0
    return whole
end

local function check_heading(document, target, id)
    if id ~= "" and not has_heading(document, id) then
        error(source .. ": there is no heading " .. target)
    end
end

function Pandoc(document)
    local function link(element)
        local target = element.target
        if target:match("^%a[%w+.-]*:") then
            return nil
        end
        local path, id = target:match("^([^#]*)#?(.*)$")
        if path == "" then
            check_heading(document, target, id)
        elseif path:match("%.md$") then
            check_heading(pandoc.read(read(resolve(path)), "gfm"), target, id)
            element.target = path:gsub("md$", "html") .. (id == "" and "" or "#" .. id)
        else
            error(source .. ": " .. target .. " is not handed on with the pages")
        end
        return element
    end
    local function image(element)
        local path = resolve(element.src)
        read(path)
        if not path:match("^docs/pictures/.*%.svg$") and not path:match("^docs/images/.*%.png$") then
            error(source .. ": " .. element.src .. " is not handed on with the pages")
        end
    end
    document = document:walk {Link = link, Image = image}
    document:walk {Header = function(header)
        if header.level == 1 and not document.meta.pagetitle then
            document.meta.pagetitle = pandoc.utils.stringify(header)
        end
    end}
    return document
end
