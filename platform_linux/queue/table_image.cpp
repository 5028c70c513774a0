#include "platform_linux/queue/table_image.hpp"

namespace zol::cfg
{

TableImage TableImage::untouched()
{
    TableImage image;
    for (const char* name : {"INPUT", "FORWARD", "OUTPUT"}) {
        ImageChain& chain = image.chains[name];
        chain.builtIn = true;
        chain.present = false;
        chain.policy = "ACCEPT";
    }
    return image;
}

ImageChain* TableImage::find(std::string_view chain)
{
    const auto found = chains.find(chain);
    return found == chains.end() ? nullptr : &found->second;
}

const ImageChain* TableImage::find(std::string_view chain) const
{
    const auto found = chains.find(chain);
    return found == chains.end() ? nullptr : &found->second;
}

ebtables::Footprint TableImage::footprint() const
{
    ebtables::Footprint result;
    for (const auto& [name, chain] : chains) {
        if (chain.ours) {
            result.addChain(name);
            continue;
        }
        if (chain.builtIn && chain.policyIsOurs && chain.policy != "ACCEPT")
            result.addPolicy(name);
        for (const ImageRule& rule : chain.rules) {
            if (rule.ours && rule.text != nullptr)
                result.addRule(name, *rule.text);
        }
    }
    return result;
}

} // namespace zol::cfg
